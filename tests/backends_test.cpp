// What both back ends promise alike, through the public handle: bytes shared between processes,
// who removes a segment and when, other users and trustee groups, the owner and trustee as the
// permission bits tell them; and what the handle adds: the name it opens, moves, empty handles.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include "Support.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using namespace spf_test;

namespace {

constexpr unsigned long kSize = 4096;
using Records = std::vector<std::string>;

char* bytes(const SharedMemory& handle) { return static_cast<char*>(handle.getPointer()); }

// Rewrites mode, owner and group the way an administrator's tool would.
void restamp(const std::string& name, Spec spec, unsigned mode, uid_t uid, gid_t gid) {
    if (spec == P) {
        const int fd = ::shm_open(("/" + name).c_str(), O_RDONLY, 0);
        EXPECT_TRUE(fd != -1 && ::fchown(fd, uid, gid) == 0 && ::fchmod(fd, mode) == 0);
        ::close(fd);
        return;
    }
    const int id = ::shmget(sm::deriveSystemVKey(name), 0, 0);
    shmid_ds status;
    EXPECT_EQ(::shmctl(id, IPC_STAT, &status), 0);
    status.shm_perm.uid = uid;
    status.shm_perm.gid = gid;
    status.shm_perm.mode = mode;
    EXPECT_EQ(::shmctl(id, IPC_SET, &status), 0);
}

TEST(Backends, FindersInOtherProcessesShareBytesAndOnlyTheCreatorRemoves) {
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName();
        std::optional<SharedMemory> creator(std::in_place, name, kSize, "", spec);
        char* const shared = bytes(*creator);
        ASSERT_TRUE(creator->isCreator() && shared != nullptr);
        std::strcpy(shared + 16, "from creator");
        EXPECT_EQ(runInChild([&] {
                      SharedMemory found(name, kSize, "", spec);
                      if (found.isCreator() || bytes(found) == nullptr) return 1;
                      if (std::strcmp(bytes(found) + 16, "from creator") != 0) return 2;
                      std::strcpy(bytes(found) + 64, "from finder");
                      return 0;
                  }),
                  0);
        EXPECT_TRUE(exists(name, spec)) << "a finder's teardown leaves the segment";
        EXPECT_STREQ(shared + 64, "from finder");

        Pipe removed;
        Child holder([&] {
            SharedMemory found(name, kSize, false, "", spec);
            if (bytes(found) == nullptr) return 1;
            __atomic_store_n(bytes(found), 1, __ATOMIC_RELEASE);
            removed.receive();
            if (exists(name, spec) || std::strcmp(bytes(found) + 128, "last words") != 0) return 2;
            std::strcpy(bytes(found) + 256, "still mapped");  // a dead mapping would fault here
            return 0;
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (__atomic_load_n(shared, __ATOMIC_ACQUIRE) != 1 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::strcpy(shared + 128, "last words");
        creator.reset();
        EXPECT_FALSE(exists(name, spec));
        removed.receive();
        EXPECT_EQ(holder.join(), 0);
    }
}

TEST(Backends, PersistentSegmentOutlivesItsCreatorUntilAFinderMarksIt) {
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName();
        ASSERT_EQ(runInChild([&] {
                      SharedMemory creator(name, kSize, true, "", spec);
                      std::strcpy(bytes(creator), "kept");
                      creator.makePersistent();
                      return 0;
                  }),
                  0);
        EXPECT_STREQ(bytes(SharedMemory(name, kSize, false, "", spec)), "kept");
        ASSERT_TRUE(exists(name, spec));
        SharedMemory(name, kSize, false, "", spec).markForDeletion();
        EXPECT_FALSE(exists(name, spec));
    }
}

TEST(Backends, TrusteeMembersOfAnotherUserGetInAndOutsidersAreRefusedWithOwnerAndGroupNamed) {
    if (!isRoot()) GTEST_SKIP() << "needs root to act as other users and groups";
    for (const Spec spec : kBackEnds) {
        const std::string trusted = uniqueName(), unshared = uniqueName();
        SharedMemory staffOnly(trusted, kSize, "staff", spec), rootOnly(unshared, kSize, true, "", spec);
        const Ownership stamp = ownership(trusted, spec);
        EXPECT_TRUE(staffOnly.isCreator() && stamp.mode == 0770 && stamp.uid == 0 && stamp.gid == groupId("staff"));
        EXPECT_EQ(staffOnly.getOwner() + "," + staffOnly.getTrustee(), "root,staff");
        std::strcpy(bytes(staffOnly), "for staff");
        EXPECT_EQ(runAsNobody({groupId("staff")}, [&] {
                      SharedMemory member(trusted, kSize, std::string("staff"), spec);
                      if (member.isCreator() || bytes(member) == nullptr) return 1;
                      if (member.getOwner() != "root" || std::strcmp(bytes(member), "for staff") != 0) return 2;
                      std::strcpy(bytes(member) + 32, "from nobody");
                      return 0;
                  }),
                  0);
        EXPECT_STREQ(bytes(staffOnly) + 32, "from nobody");

        for (const auto& [name, group] : {std::pair<std::string, std::string>{trusted, "staff"}, {unshared, ""}}) {
            Pipe heard;
            EXPECT_EQ(runAsNobody({}, [&] {
                          LogCapture log;
                          heard.send(thrown([&] { SharedMemory(name, kSize, "", spec); }));
                          for (const std::string& record : log.messages()) heard.send("\n" + record);
                          return 0;
                      }),
                      0);
            EXPECT_EQ(heard.receive(),
                      "runtime_error: SystemError:SharedMemory:find:" + std::string(spec == P ? "shm_open:  " : "shmget: ") +
                          "name=</" + name + ">, owning group=<" + group +
                          ">, owning user=<root>, selected group=<>, current username=<euid: 65534>, error=13\n"
                          "find(): Failed to open the existing segment: </" + name +
                          (spec == P ? "> with trustee <>" : ">") + ". (Error 13)");
            EXPECT_TRUE(exists(name, spec));
        }
    }
}

TEST(Backends, OwnerAndTrusteeNeedTheirWholePermissionClassAndADatabaseEntry) {
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName();
        SharedMemory creator(name, kSize, true, "", spec);
        const std::string user = ::getpwuid(::geteuid())->pw_name, group = ::getgrgid(::getegid())->gr_name;
        EXPECT_EQ(ownership(name, spec).mode, 0700u);
        EXPECT_EQ(creator.getOwner() + "," + creator.getTrustee(), user + ",");
        restamp(name, spec, 0670, ::geteuid(), ::getegid());
        EXPECT_EQ(creator.getOwner() + "," + creator.getTrustee(), "," + group);
        for (unsigned mode : {0760u, 0750u, 0730u, 0570u}) {
            restamp(name, spec, mode, ::geteuid(), ::getegid());
            EXPECT_EQ(creator.getOwner().empty() + creator.getTrustee().empty(), 1) << std::oct << mode;
        }
        if (!isRoot()) continue;
        // Nobody has these ids: each query fails the same way every time, whatever errno held.
        restamp(name, spec, 0770, 4242, 4343);
        const std::string code = spec == P ? "-1" : "0", path = "/" + name;
        LogCapture log;
        for (int round = 0; round < 2; ++round) {
            errno = EIO;
            EXPECT_EQ(thrown([&] { creator.getOwner(); }),
                      spec == P ? "runtime_error: SystemError:SharedMemory:getOwner:getpwuid " + path + " :error=-1"
                                : "runtime_error: SystemError:SharedMemory:getOwner:getpwuid" + path + ":error=0");
            errno = EIO;
            EXPECT_EQ(thrown([&] { creator.getTrustee(); }),
                      "runtime_error: SystemError:SharedMemory:getTrustee:getgrgid" + path + ":error=" + code);
        }
        const std::string ownerRecord = "getOwner(): Failed to get the user struct" +
                                        (spec == P ? "<" + path + ">" : std::string()) + ". (Error " + code + ")";
        const std::string trusteeRecord = "getTrustee(): Failed to get the group struct. (Error " + code + ")";
        EXPECT_EQ(log.messages(), (Records{ownerRecord, trusteeRecord, ownerRecord, trusteeRecord}));
        EXPECT_TRUE(creator.isAttached());
    }
}

TEST(Backends, PosixLookupsDoubleTheirBufferUntilALargeEntryFits) {
    if (!isRoot()) GTEST_SKIP() << "needs root to hand segments to group staff";
    const std::string name = uniqueName();
    disarmAll();
    forceRangeErrorsBelow(16384);
    SharedMemory creator(name, kSize, true, "staff", P);
    EXPECT_EQ(callCount(Call::getgrnam_r), 4);  // 2048, 4096, 8192, 16384
    EXPECT_EQ(creator.getTrustee(), "staff");
    EXPECT_EQ(callCount(Call::getgrgid_r), 4);
    EXPECT_EQ(creator.getOwner(), "root");
    EXPECT_EQ(callCount(Call::getpwuid_r), 4);
    EXPECT_EQ(largestLookupBuffer(), 16384u);
    EXPECT_EQ(ownership(name, P).gid, groupId("staff"));
    disarmAll();
}

TEST(Handle, ConstructorsOpenTheNameAsGivenAndStaticFunctionsTheDerivedOne) {
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName(), derived = sm::deriveSegmentName(name, "");
        {
            SharedMemory plain(name, kSize, std::string(), spec), literal(name + "-l", kSize, "", spec),
                null(name + "-n", kSize, nullptr, spec);
            EXPECT_TRUE(plain.isCreator() && literal.isCreator() && null.isCreator());
            EXPECT_TRUE(exists(name, spec) && exists(name + "-l", spec) && exists(name + "-n", spec));
            EXPECT_FALSE(exists(derived, spec));
            SharedMemory viaCreate = SharedMemory::create(name, kSize, "", spec);
            EXPECT_TRUE(viaCreate.isCreator() && viaCreate.isAttached() && exists(derived, spec));
            SharedMemory viaFind = SharedMemory::find(name, kSize, "", spec);
            SharedMemory viaEither = SharedMemory::createOrFind(name, kSize, "", spec);
            EXPECT_TRUE(viaFind.isAttached() && !viaFind.isCreator() && !viaEither.isCreator());
            std::strcpy(bytes(viaCreate), "derived");
            EXPECT_STREQ(bytes(viaEither), "derived");
            EXPECT_STRNE(bytes(plain), "derived") << "two names, one segment";
        }
        EXPECT_FALSE(exists(name, spec) || exists(name + "-l", spec) || exists(derived, spec));
    }
}

TEST(Handle, UnknownBackEndBuildsEmptyHandlesThatRefuseEverything) {
    const auto unknown = static_cast<Spec>(2);
    const std::string name = uniqueName(), derived = sm::deriveSegmentName(name, "staff");
    SharedMemory a(name, kSize, "", unknown), b(name, kSize, true, "", unknown);
    SharedMemory c = SharedMemory::createOrFind(name, kSize, "staff", unknown);
    EXPECT_FALSE(exists(name, P) || exists(name, V) || exists(derived, P) || exists(derived, V));
    SharedMemory moved(std::move(a));
    b = std::move(moved);
    for (SharedMemory* empty : {&a, &b, &c, &moved}) {
        EXPECT_EQ(thrown([&] { empty->isCreator(); }),
                  "logic_error: SharedMemory: the handle is empty (moved from, or built with an unknown back end)");
        EXPECT_THROW(empty->getPointer(), std::logic_error);
        EXPECT_THROW(empty->isAttached(), std::logic_error);
        EXPECT_THROW(empty->markForDeletion(), std::logic_error);
        EXPECT_THROW(empty->makePersistent(), std::logic_error);
        EXPECT_THROW(empty->getTrustee(), std::logic_error);
        EXPECT_THROW(empty->getOwner(), std::logic_error);
    }
    // Assigning an empty handle tears down what the target held.
    SharedMemory holding(name, kSize, "", P);
    holding = std::move(c);
    EXPECT_FALSE(exists(name, P));
    EXPECT_THROW(holding.isAttached(), std::logic_error);
}

TEST(Handle, MovesTakeTheSegmentAndTearDownOnlyTheReplacedOne) {
    for (const Spec spec : kBackEnds) {
        const std::string a = uniqueName("a"), b = uniqueName("b"), kept = uniqueName("kept");
        const int mappings = segmentMappingCount();
        {
            SharedMemory first(a, kSize, "", spec);
            void* const address = first.getPointer();
            SharedMemory second(std::move(first));
            EXPECT_EQ(second.getPointer(), address);
            EXPECT_THROW(first.isAttached(), std::logic_error);
            SharedMemory target(b, kSize, "", spec);
            target = std::move(second);
            EXPECT_EQ(target.getPointer(), address);
            EXPECT_FALSE(exists(b, spec)) << "a marked segment goes";
            EXPECT_EQ(segmentMappingCount(), mappings + 1);

            SharedMemory persistent(kept, kSize, "", spec);
            persistent.makePersistent();
            persistent = std::move(target);
            EXPECT_TRUE(exists(kept, spec)) << "an unmarked one is only detached";
            EXPECT_EQ(segmentMappingCount(), mappings + 1);
            SharedMemory(kept, kSize, false, "", spec).markForDeletion();
            EXPECT_FALSE(exists(kept, spec));

            SharedMemory& self = persistent;  // an alias keeps -Wself-move quiet
            persistent = std::move(self);
            EXPECT_EQ(persistent.getPointer(), address);
            EXPECT_TRUE(persistent.isCreator() && exists(a, spec));
        }
        EXPECT_FALSE(exists(a, spec));
        EXPECT_EQ(segmentMappingCount(), mappings);
    }
}

}  // namespace
