// The rules every back end inherits: create-or-find, the role flags, persistence, teardown.
#include <gtest/gtest.h>

#include <deque>

#include "Support.hpp"
#include "core/Impl.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

using Calls = std::vector<std::string>;

// A back end whose create() and find() answer from a script (-2: throw; -1 once it has run out),
// and which notes every call.
class ScriptedImpl final : public sm::SharedMemory::Impl {
public:
    using Impl::Impl;
    ~ScriptedImpl() override { destruct(); }

    std::string getTrustee() const override { return ""; }
    std::string getOwner() const override { return ""; }
    std::string setTrustee(const std::string& requested) override { return requested; }
    void* attach() override { return nullptr; }
    void reserve() override {}
    void detach() override { calls.push_back("detach"); }
    void removeAndClose() override { calls.push_back("removeAndClose"); }
    int create() override { return next(creates, "create"); }
    int find() override { return next(finds, "find"); }
    int next(std::deque<int>& script, const char* what) {
        calls.push_back(what);
        const int value = script.empty() ? -1 : script.front();
        if (value == -2) throw std::runtime_error(what);
        return script.empty() ? value : (script.pop_front(), value);
    }

    std::deque<int> creates, finds;
    Calls calls;
};

TEST(Base, CreateOrFindRetriesWhileASegmentComesAndGoesAndSetsTheRole) {
    ScriptedImpl creator("seg", 1);
    creator.creates = {-1, -1, -1, -1, -1, 7};
    EXPECT_EQ(creator.createOrFind(), 7);
    EXPECT_EQ(creator.calls.size(), 11u);
    EXPECT_TRUE(creator.isCreator() && creator.markedForDeletion);

    ScriptedImpl finder("seg", 1, true);
    finder.finds = {3};
    EXPECT_EQ(finder.createOrFind(), 3);
    EXPECT_FALSE(finder.isCreator() || finder.markedForDeletion);
    EXPECT_EQ(finder.name, "/seg");

    ScriptedImpl failing("seg", 1);
    failing.creates = {-2};
    EXPECT_EQ(spf_test::thrown([&] { failing.createOrFind(); }), "runtime_error: create");
    EXPECT_EQ(failing.calls, Calls{"create"}) << "a failure passes on without a find";
}

TEST(Base, CreateOrFindGivesUpWhenNothingCanEverBeOpened) {
    spf_test::LogCapture log;
    ScriptedImpl impl("never", 0);
    errno = 0;
    EXPECT_EQ(spf_test::thrown([&] { impl.createOrFind(); }),
              "runtime_error: SystemError:SharedMemory:createOrFind:/never:the segment could be neither "
              "created nor found after 10000 attempts:error=0");
    EXPECT_EQ(impl.calls.size(), 2u * sm::SharedMemory::Impl::kMaxEmptyRounds);
    EXPECT_EQ(log.messages(), Calls{"createOrFind(): Could neither create nor find the segment: </never> "
                                    "after 10000 attempts. (Error 0)"});
    EXPECT_FALSE(impl.isCreator() || impl.markedForDeletion);
}

TEST(Base, PersistenceBelongsToTheCreatorAndDeletionToAnyone) {
    ScriptedImpl creator("seg", 1, true);
    EXPECT_TRUE(creator.isCreator() && creator.markedForDeletion);
    creator.makePersistent();
    creator.makePersistent();
    EXPECT_FALSE(creator.markedForDeletion);
    creator.markForDeletion();
    EXPECT_TRUE(creator.markedForDeletion);

    spf_test::LogCapture log;
    ScriptedImpl finder("seg", 1, false);
    EXPECT_EQ(spf_test::thrown([&] { finder.makePersistent(); }),
              "runtime_error: API error: Making shared memory persistent is not available to finder processes");
    EXPECT_EQ(log.messages(), Calls{"makePersistent(): Cannot be called from a finder object"});
    EXPECT_FALSE(finder.isCreator() || finder.markedForDeletion);
    finder.markForDeletion();
    EXPECT_TRUE(finder.markedForDeletion);
}

}  // namespace
