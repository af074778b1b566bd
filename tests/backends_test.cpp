// What both back ends promise alike: bytes shared between processes, who removes a segment and
// when, handles that open nothing, trustee groups as other users meet them, and the owner and
// trustee as the permission bits tell them.
#include <gtest/gtest.h>
#include <grp.h>
#include <pwd.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include "Leaks.hpp"
#include "LogCapture.hpp"
#include "Names.hpp"
#include "Thrown.hpp"
#include "Processes.hpp"
#include "posix/PosixImpl.hpp"
#include "sysv/SysVImpl.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

using spf_test::thrownText;

using Impl = sm::SharedMemory::Impl;
using Records = std::vector<std::string>;

constexpr unsigned long kSize = 4096;
constexpr uid_t kNoSuchUser = 4242;
constexpr gid_t kNoSuchGroup = 4343;

// Another process hands over through a flag byte in the segment itself.
bool awaitByte(const char* flag, char value) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (__atomic_load_n(flag, __ATOMIC_ACQUIRE) != value) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

char* bytes(const std::unique_ptr<Impl>& impl) { return static_cast<char*>(impl->getPointer()); }

class Backends : public ::testing::TestWithParam<sm::SharedMemory::ImplementationSpecifications> {
protected:
    // A segment still there is a leak to report; removing it keeps the next runs clean.
    void TearDown() override {
        for (const std::string& name : names_) {
            EXPECT_FALSE(exists(name)) << "left behind: " << name;
            spf_test::removePosixObject("/" + name);
            spf_test::removeSysvKey(sm::segmentKey("/" + name));
        }
    }

    bool posix() const { return GetParam() == sm::SharedMemory::Posix; }

    std::string newName() {
        names_.push_back(spf_test::uniqueName("be"));
        return names_.back();
    }

    // Either back end, by the parameter; the arguments pick create-or-find or create/find.
    template <typename... Args>
    std::unique_ptr<Impl> make(const Args&... args) const {
        if (posix()) return std::make_unique<sm::SharedMemory::PosixImpl>(args...);
        return std::make_unique<sm::SharedMemory::SysVImpl>(args...);
    }
    std::unique_ptr<Impl> createOrFind(const std::string& name, const std::string& trustee = "") const {
        return make(name, kSize, trustee);
    }
    std::unique_ptr<Impl> create(const std::string& name, const std::string& trustee = "") const {
        return make(name, kSize, true, trustee);
    }
    std::unique_ptr<Impl> find(const std::string& name, const std::string& trustee = "") const {
        return make(name, kSize, false, trustee);
    }

    bool exists(const std::string& name) const {
        return posix() ? spf_test::posixObjectExists("/" + name)
                       : spf_test::sysvKeyExists(sm::segmentKey("/" + name));
    }
    spf_test::Ownership ownership(const std::string& name) const {
        spf_test::Ownership result;
        const bool found = posix() ? spf_test::posixOwnership("/" + name, result)
                                   : spf_test::sysvOwnership(sm::segmentKey("/" + name), result);
        EXPECT_TRUE(found) << name;
        return result;
    }

    // Rewrites mode, owner and group the way an administrator's tool would.
    void restamp(const Impl& impl, unsigned mode, uid_t uid, gid_t gid) const {
        if (posix()) {
            ASSERT_EQ(::fchown(impl.handle, uid, gid), 0);
            ASSERT_EQ(::fchmod(impl.handle, mode), 0);
            return;
        }
        shmid_ds status;
        ASSERT_EQ(::shmctl(impl.handle, IPC_STAT, &status), 0);
        status.shm_perm.uid = uid;
        status.shm_perm.gid = gid;
        status.shm_perm.mode = mode;
        ASSERT_EQ(::shmctl(impl.handle, IPC_SET, &status), 0);
    }

    // What nobody (65534) hears when the segment shuts it out: exception text, then record.
    std::string denied(const std::string& name, const std::string& group) const {
        return std::string(posix() ? "SystemError:SharedMemory:find:shm_open:  "
                                   : "SystemError:SharedMemory:find:shmget: ") +
               "name=</" + name + ">, owning group=<" + group +
               ">, owning user=<root>, selected group=<>, current username=<euid: 65534>, error=13\n" +
               "find(): Failed to open the existing segment: </" + name +
               (posix() ? "> with trustee <>" : ">") + ". (Error 13)";
    }

    std::vector<std::string> names_;
};

#define REQUIRE_ROOT() \
    if (!spf_test::isRoot()) GTEST_SKIP() << "needs root to act as other users and groups"

TEST_P(Backends, FindersInOtherProcessesShareBytesAndOnlyTheCreatorRemoves) {
    const std::string name = newName();
    std::unique_ptr<Impl> creator = createOrFind(name);
    ASSERT_TRUE(creator->isCreator());
    ASSERT_TRUE(creator->isAttached());
    std::strcpy(bytes(creator) + 16, "from creator");
    EXPECT_EQ(spf_test::runInChild([&] {
                  std::unique_ptr<Impl> found = createOrFind(name);
                  if (found->isCreator() || !found->isAttached()) return 1;
                  if (std::strcmp(bytes(found) + 16, "from creator") != 0) return 2;
                  std::strcpy(bytes(found) + 64, "from finder");
                  return 0;
              }),
              0);
    EXPECT_TRUE(exists(name));  // the finder's teardown left it
    EXPECT_STREQ(bytes(creator) + 64, "from finder");

    spf_test::Gate removed;
    spf_test::Child holder([&] {
        std::unique_ptr<Impl> found = find(name);
        if (!found->isAttached()) return 1;
        char* shared = bytes(found);
        __atomic_store_n(shared, 1, __ATOMIC_RELEASE);
        removed.wait();
        if (exists(name)) return 3;
        if (std::strcmp(shared + 128, "last words") != 0) return 4;
        std::strcpy(shared + 256, "still mapped");  // a dead mapping would fault here
        return std::strcmp(shared + 256, "still mapped") == 0 ? 0 : 5;
    });
    ASSERT_TRUE(awaitByte(bytes(creator), 1));
    std::strcpy(bytes(creator) + 128, "last words");
    creator.reset();
    EXPECT_FALSE(exists(name));
    removed.open();
    EXPECT_EQ(holder.join(), 0);
}

TEST_P(Backends, PersistentSegmentOutlivesItsCreatorUntilAFinderMarksIt) {
    const std::string name = newName();
    ASSERT_EQ(spf_test::runInChild([&] {
                  std::unique_ptr<Impl> creator = create(name);
                  std::strcpy(bytes(creator), "kept");
                  creator->makePersistent();
                  return 0;
              }),
              0);
    ASSERT_TRUE(exists(name));
    {
        std::unique_ptr<Impl> finder = find(name);
        ASSERT_TRUE(finder->isAttached());
        EXPECT_STREQ(bytes(finder), "kept");
        spf_test::LogCapture log;
        EXPECT_EQ(thrownText<std::runtime_error>([&] { finder->makePersistent(); }),
                  "API error: Making shared memory persistent is not available to finder processes");
        EXPECT_EQ(log.messages(), Records{"makePersistent(): Cannot be called from a finder object"});
        EXPECT_FALSE(finder->markedForDeletion);
    }
    ASSERT_TRUE(exists(name));
    {
        std::unique_ptr<Impl> finder = find(name);
        EXPECT_STREQ(bytes(finder), "kept");
        finder->markForDeletion();
    }
    EXPECT_FALSE(exists(name));
}

TEST_P(Backends, CreateOnATakenNameOrFindOnAMissingOneOpensNothingAndRemovesNothing) {
    const std::string name = newName();
    std::unique_ptr<Impl> owner = create(name);
    std::strcpy(bytes(owner), "untouched");
    spf_test::LogCapture log;
    std::unique_ptr<Impl> second = create(name);
    EXPECT_FALSE(second->isAttached());
    EXPECT_EQ(second->getPointer(), nullptr);
    EXPECT_EQ(second->handle, -1);
    EXPECT_TRUE(second->markedForDeletion);
    second.reset();

    const std::string missing = newName();
    std::unique_ptr<Impl> absent = find(missing);
    EXPECT_FALSE(absent->isAttached());
    EXPECT_EQ(absent->handle, -1);
    absent.reset();

    EXPECT_TRUE(log.messages().empty());
    EXPECT_TRUE(exists(name));
    EXPECT_FALSE(exists(missing));
    EXPECT_STREQ(bytes(owner), "untouched");
}

TEST_P(Backends, TrusteeGroupMembersOfAnotherUserFindTheSegment) {
    REQUIRE_ROOT();
    const std::string name = newName();
    std::unique_ptr<Impl> creator = create(name, "staff");
    const spf_test::Ownership stamp = ownership(name);
    EXPECT_EQ(stamp.mode, 0770u);
    EXPECT_EQ(stamp.uid, 0u);
    EXPECT_EQ(stamp.gid, spf_test::groupId("staff"));
    EXPECT_EQ(creator->trustee, "staff");
    EXPECT_EQ(creator->getTrustee(), "staff");
    EXPECT_EQ(creator->getOwner(), "root");
    std::strcpy(bytes(creator), "for staff");

    const int code = spf_test::runAsUser(spf_test::kNobody, spf_test::kNogroup,
                                         {spf_test::groupId("staff")}, [&] {
        std::unique_ptr<Impl> member = createOrFind(name, "staff");
        if (member->isCreator() || !member->isAttached()) return 1;
        if (member->trustee != "staff" || member->getOwner() != "root") return 2;
        if (std::strcmp(bytes(member), "for staff") != 0) return 3;
        std::strcpy(bytes(member) + 32, "from nobody");
        return 0;
    });
    EXPECT_EQ(code, 0);
    EXPECT_STREQ(bytes(creator) + 32, "from nobody");
}

TEST_P(Backends, OutsidersAreRefusedWithTheSegmentsOwnerAndGroupInTheText) {
    REQUIRE_ROOT();
    const std::string trusted = newName();
    const std::string unshared = newName();
    std::unique_ptr<Impl> staffOnly = create(trusted, "staff");
    std::unique_ptr<Impl> rootOnly = create(unshared);
    for (const auto& [name, group] : {std::pair<std::string, std::string>{trusted, "staff"}, {unshared, ""}}) {
        spf_test::Channel heard;
        const int code = spf_test::runAsUser(spf_test::kNobody, spf_test::kNogroup, {}, [&] {
            spf_test::LogCapture log;
            heard.send(thrownText<std::runtime_error>([&] { createOrFind(name); }));
            for (const std::string& record : log.messages()) heard.send("\n" + record);
            return 0;
        });
        EXPECT_EQ(code, 0);
        EXPECT_EQ(heard.receive(), denied(name, group));
        EXPECT_TRUE(exists(name));
    }
}

TEST_P(Backends, FinderKeepsTheSegmentOnlyWhenItsTrusteeMatchesOrIsLeftOpen) {
    REQUIRE_ROOT();
    const std::string name = newName();
    std::unique_ptr<Impl> creator = create(name, "staff");
    std::strcpy(bytes(creator), "staff only");
    spf_test::LogCapture log;

    std::unique_ptr<Impl> adopting = find(name);
    EXPECT_TRUE(adopting->isAttached());
    EXPECT_EQ(adopting->trustee, "staff");
    std::unique_ptr<Impl> matching = createOrFind(name, "staff");
    EXPECT_FALSE(matching->isCreator());
    EXPECT_STREQ(bytes(matching), "staff only");

    std::unique_ptr<Impl> other = find(name, "users");
    EXPECT_FALSE(other->isAttached());
    EXPECT_EQ(other->getPointer(), nullptr);
    EXPECT_EQ(other->handle, -1);
    EXPECT_EQ(other->trustee, "");
    other.reset();

    EXPECT_TRUE(log.messages().empty());
    EXPECT_TRUE(exists(name));
    EXPECT_EQ(creator->getTrustee(), "staff");
}

TEST_P(Backends, UnknownTrusteeIsInvalidAndRemovesOnlyACreatorsNewSegment) {
    const std::string fresh = newName();
    const std::string existing = newName();
    // The reentrant lookup reports -1 for a missing entry; getgrnam leaves errno at 0.
    const std::string code = posix() ? "-1" : "0";
    const std::string text = "SystemError:SharedMemory:getgrnam:trustee=nosuchgroup:error= " + code;
    const std::string record =
        "setTrustee(): Failed to find the specified group: <nosuchgroup>. (Error " + code + ")";
    std::unique_ptr<Impl> creator = create(existing);
    spf_test::LogCapture log;

    EXPECT_EQ(thrownText<std::invalid_argument>([&] { createOrFind(fresh, "nosuchgroup"); }), text);
    EXPECT_FALSE(exists(fresh));
    EXPECT_EQ(thrownText<std::invalid_argument>([&] { find(existing, "nosuchgroup"); }), text);
    EXPECT_TRUE(exists(existing));
    EXPECT_EQ(log.messages(), (Records{record, record}));
}

TEST_P(Backends, OwnerAndTrusteeNeedTheirWholePermissionClass) {
    const std::string name = newName();
    std::unique_ptr<Impl> creator = create(name);
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    const std::string userName = ::getpwuid(user)->pw_name;
    const std::string groupName = ::getgrgid(group)->gr_name;
    EXPECT_EQ(creator->getOwner(), userName);
    EXPECT_EQ(creator->getTrustee(), "");

    restamp(*creator, 0600, user, group);
    EXPECT_EQ(creator->getOwner(), "");
    restamp(*creator, 0770, user, group);
    EXPECT_EQ(creator->getOwner(), userName);
    EXPECT_EQ(creator->getTrustee(), groupName);
    for (unsigned mode : {0760u, 0750u}) {
        restamp(*creator, mode, user, group);
        EXPECT_EQ(creator->getTrustee(), "") << std::oct << mode;
    }
}

TEST_P(Backends, OwnerOrGroupWithoutADatabaseEntryFailsTheQueryAlike) {
    REQUIRE_ROOT();
    ASSERT_EQ(::getpwuid(kNoSuchUser), nullptr);
    ASSERT_EQ(::getgrgid(kNoSuchGroup), nullptr);
    const std::string name = newName();
    std::unique_ptr<Impl> creator = create(name);
    restamp(*creator, 0770, kNoSuchUser, kNoSuchGroup);

    const std::string code = posix() ? "-1" : "0";
    const std::string ownerText = posix()
        ? "SystemError:SharedMemory:getOwner:getpwuid /" + name + " :error=-1"
        : "SystemError:SharedMemory:getOwner:getpwuid/" + name + ":error=0";
    const std::string ownerRecord = posix()
        ? "getOwner(): Failed to get the user struct</" + name + ">. (Error -1)"
        : "getOwner(): Failed to get the user struct. (Error 0)";
    const std::string trusteeText = "SystemError:SharedMemory:getTrustee:getgrgid/" + name + ":error=" + code;
    const std::string trusteeRecord = "getTrustee(): Failed to get the group struct. (Error " + code + ")";

    spf_test::LogCapture log;
    for (int round = 0; round < 2; ++round) {
        errno = EIO;  // a stale number must not reach the texts
        EXPECT_EQ(thrownText<std::runtime_error>([&] { creator->getOwner(); }), ownerText);
        errno = EIO;
        EXPECT_EQ(thrownText<std::runtime_error>([&] { creator->getTrustee(); }), trusteeText);
    }
    EXPECT_EQ(log.messages(), (Records{ownerRecord, trusteeRecord, ownerRecord, trusteeRecord}));
    EXPECT_TRUE(creator->isAttached());
}

INSTANTIATE_TEST_SUITE_P(BothBackEnds, Backends,
                         ::testing::Values(sm::SharedMemory::Posix, sm::SharedMemory::SysV),
                         [](const auto& info) {
                             return std::string(info.param == sm::SharedMemory::Posix ? "Posix" : "SysV");
                         });

}  // namespace
