// The rules every back end inherits: create-or-find, the role flags, persistence, teardown.
#include <gtest/gtest.h>

#include <deque>
#include <stdexcept>
#include <string>
#include <vector>

#include "LogCapture.hpp"
#include "core/Impl.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

// A back end whose create() and find() answer from a script, and which notes every call.
class ScriptedImpl final : public sm::SharedMemory::Impl {
public:
    using Impl::Impl;
    ~ScriptedImpl() override { destruct(); }

    std::string getTrustee() const override { return ""; }
    std::string getOwner() const override { return ""; }
    int create() override { return next(creates, "create"); }
    int find() override { return next(finds, "find"); }
    std::string setTrustee(const std::string& requested) override { return requested; }
    void* attach() override { return nullptr; }
    void detach() override { calls.push_back("detach"); }
    void removeAndClose() override { calls.push_back("removeAndClose"); }

    std::deque<int> creates;  // -2 means: throw
    std::deque<int> finds;
    int fallback = -1;        // the answer once a script has run out
    std::vector<std::string> calls;

private:
    int next(std::deque<int>& script, const char* what) {
        calls.push_back(what);
        if (script.empty()) return fallback;
        const int value = script.front();
        script.pop_front();
        if (value == -2) throw std::runtime_error(std::string(what) + " failed");
        return value;
    }
};

TEST(Base, ConstructionSetsNameAndRoleButOpensNothing) {
    ScriptedImpl plain("seg", 4096);
    EXPECT_EQ(plain.name, "/seg");
    EXPECT_EQ(plain.size, 4096u);
    EXPECT_EQ(plain.handle, -1);
    EXPECT_EQ(plain.getPointer(), nullptr);
    EXPECT_FALSE(plain.isAttached());
    EXPECT_TRUE(plain.trustee.empty());

    ScriptedImpl creator("seg", 1, true);
    EXPECT_TRUE(creator.isCreator());
    EXPECT_TRUE(creator.markedForDeletion);
    ScriptedImpl finder("", 1, false);
    EXPECT_EQ(finder.name, "/");
    EXPECT_FALSE(finder.isCreator());
    EXPECT_FALSE(finder.markedForDeletion);
}

TEST(Base, CreateOrFindRetriesWhileASegmentComesAndGoes) {
    ScriptedImpl impl("seg", 1);
    impl.creates = {-1, -1, -1, -1, -1, 7};
    impl.finds = {-1, -1, -1, -1, -1};
    EXPECT_EQ(impl.createOrFind(), 7);
    EXPECT_EQ(impl.calls.size(), 11u);
    EXPECT_TRUE(impl.isCreator());
    EXPECT_TRUE(impl.markedForDeletion);

    ScriptedImpl finder("seg", 1);
    finder.creates = {-1};
    finder.finds = {3};
    EXPECT_EQ(finder.createOrFind(), 3);
    EXPECT_FALSE(finder.isCreator());
    EXPECT_FALSE(finder.markedForDeletion);
}

TEST(Base, CreateOrFindPassesAFailureOnWithoutTryingFind) {
    ScriptedImpl impl("seg", 1);
    impl.creates = {-2};
    EXPECT_THROW(impl.createOrFind(), std::runtime_error);
    EXPECT_EQ(impl.calls, (std::vector<std::string>{"create"}));
}

TEST(Base, CreateOrFindGivesUpWhenNothingCanEverBeOpened) {
    spf_test::LogCapture log;
    ScriptedImpl impl("never", 0);
    errno = 0;
    try {
        impl.createOrFind();
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "SystemError:SharedMemory:createOrFind:/never:the segment could be neither "
                     "created nor found after 10000 attempts:error=0");
    }
    EXPECT_EQ(impl.calls.size(), 2u * sm::SharedMemory::Impl::kMaxEmptyRounds);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                  "createOrFind(): Could neither create nor find the segment: "
                                  "</never> after 10000 attempts. (Error 0)"}));
    EXPECT_FALSE(impl.isCreator());
}

TEST(Base, PersistenceBelongsToTheCreatorAndDeletionToAnyone) {
    ScriptedImpl creator("seg", 1, true);
    creator.makePersistent();
    creator.makePersistent();
    EXPECT_FALSE(creator.markedForDeletion);
    creator.markForDeletion();
    EXPECT_TRUE(creator.markedForDeletion);

    spf_test::LogCapture log;
    ScriptedImpl finder("seg", 1, false);
    try {
        finder.makePersistent();
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "API error: Making shared memory persistent is not available to finder processes");
    }
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"makePersistent(): Cannot be called from a finder object"}));
    EXPECT_FALSE(finder.markedForDeletion);
    EXPECT_FALSE(finder.isCreator());
    finder.markForDeletion();
    EXPECT_TRUE(finder.markedForDeletion);
}

TEST(Base, TeardownDetachesBeforeItRemoves) {
    ScriptedImpl impl("seg", 1);
    impl.destruct();
    EXPECT_EQ(impl.calls, (std::vector<std::string>{"detach", "removeAndClose"}));
}

}  // namespace
