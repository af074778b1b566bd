// What both back ends promise alike, through the public handle: bytes shared between processes,
// who removes a segment and when, other users and trustee groups, the owner and trustee as the
// permission bits tell them; and what the handle adds: the name it opens, moves, empty handles.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
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
    status.shm_perm.uid = uid, status.shm_perm.gid = gid, status.shm_perm.mode = mode;
    EXPECT_EQ(::shmctl(id, IPC_SET, &status), 0);
}

TEST(Backends, FindersInOtherProcessesShareBytesAndOnlyTheCreatorRemoves) {
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName();
        std::optional<SharedMemory> creator(std::in_place, name, kSize, "", spec);
        char* const shared = bytes(*creator);
        ASSERT_TRUE(creator->isCreator() && shared != nullptr);
        std::strcpy(shared + 16, "from creator");
        Pipe removed;
        Child finder([&] {
            SharedMemory found(name, kSize, "", spec);
            char* const seen = bytes(found);
            if (found.isCreator() || seen == nullptr || std::strcmp(seen + 16, "from creator") != 0) return 1;
            std::strcpy(seen + 64, "from finder");
            __atomic_store_n(seen, 1, __ATOMIC_RELEASE);
            removed.receive();
            if (exists(name, spec) || std::strcmp(seen + 128, "last words") != 0) return 2;
            std::strcpy(seen + 256, "still mapped");  // a dead mapping would fault here
            return 0;
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (__atomic_load_n(shared, __ATOMIC_ACQUIRE) != 1 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_STREQ(shared + 64, "from finder");
        std::strcpy(shared + 128, "last words");
        creator.reset();
        EXPECT_FALSE(exists(name, spec));
        removed.receive();
        EXPECT_EQ(finder.join(), 0);
    }
}

TEST(Backends, TrusteeMembersOfAnotherUserGetInAndOutsidersAreRefusedWithOwnerAndGroupNamed) {
    if (!isRoot()) GTEST_SKIP() << "needs root to act as other users and groups";
    for (const Spec spec : kBackEnds) {
        const std::string trusted = uniqueName(), unshared = uniqueName();
        SharedMemory staffOnly(trusted, kSize, "staff", spec), rootOnly(unshared, kSize, true, "", spec);
        const Ownership stamp = ownership(trusted, spec);
        EXPECT_TRUE(staffOnly.isCreator() && stamp.mode == 0770 && stamp.uid == 0 && stamp.gid == groupId("staff") &&
                    stamp.size == kSize);
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
            const std::string call = spec == P ? "shm_open:  " : "shmget: ";
            const std::string trustee = spec == P ? " with trustee <>" : "";
            EXPECT_EQ(heard.receive(), "runtime_error: SystemError:SharedMemory:find:" + call + "name=</" + name +
                                           ">, owning group=<" + group + ">, owning user=<root>, selected group=<>, "
                                           "current username=<euid: 65534>, error=13\nfind(): Failed to open the "
                                           "existing segment: </" + name + ">" + trustee + ". (Error 13)");
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
        errno = EIO;
        EXPECT_EQ(thrown([&] { creator.getOwner(); }),
                  spec == P ? "runtime_error: SystemError:SharedMemory:getOwner:getpwuid " + path + " :error=-1"
                            : "runtime_error: SystemError:SharedMemory:getOwner:getpwuid" + path + ":error=0");
        errno = EIO;
        EXPECT_EQ(thrown([&] { creator.getTrustee(); }),
                  "runtime_error: SystemError:SharedMemory:getTrustee:getgrgid" + path + ":error=" + code);
        EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                      "getOwner(): Failed to get the user struct" +
                                          (spec == P ? "<" + path + ">" : std::string()) + ". (Error " + code + ")",
                                      "getTrustee(): Failed to get the group struct. (Error " + code + ")"}));
        EXPECT_TRUE(creator.isAttached());
    }
}

TEST(Backends, PosixLookupsDoubleTheirBufferUntilALargeEntryFits) {
    if (!isRoot()) GTEST_SKIP() << "needs root to hand segments to group staff";
    const std::string name = uniqueName();
    disarmAll();
    forceRangeErrorsBelow(16385);
    SharedMemory creator(name, kSize, true, "staff", P);
    EXPECT_EQ(creator.getTrustee() + "," + creator.getOwner(), "staff,root");
    // 2048, 4096, 8192, 16384 and 32768 bytes, each.
    EXPECT_EQ(callCount(Call::getgrnam_r) + callCount(Call::getgrgid_r) + callCount(Call::getpwuid_r), 15);
    EXPECT_EQ(ownership(name, P).gid, groupId("staff"));
    disarmAll();
}

// Page faults of a first write to every page of two mappings; not checked through AddressSanitizer's
// shadow memory, whose own first reads would fault.
__attribute__((no_sanitize_address)) long faultsWritingEveryPage(char* a, char* b, unsigned long size) {
    rusage before, after;
    ::getrusage(RUSAGE_SELF, &before);
    for (unsigned long at = 0; at < size; at += 4096) a[at] = b[at] = 'w';
    ::getrusage(RUSAGE_SELF, &after);
    return after.ru_minflt - before.ru_minflt;
}

TEST(Backends, ReserveBacksEveryByteOfCreatorAndFinderAndMapsItInUnchanged) {
    constexpr unsigned long kLarge = 4 << 20;
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName();
        SharedMemory creator(name, kLarge, true, "", spec), finder(name, kLarge, false, "", spec);
        std::strcpy(bytes(creator) + kLarge - 4096, "last");  // a page's first byte, where touching is
        creator.reserve();
        if (spec == V) arm({Call::madvise, EINVAL});  // a kernel before 5.14: every page is touched instead
        finder.reserve();
        EXPECT_STREQ(bytes(finder) + kLarge - 4096, "last");
        EXPECT_GE(ownership(name, spec).allocated, kLarge);
        EXPECT_LT(faultsWritingEveryPage(bytes(creator), bytes(finder), kLarge), 8);
    }
}

TEST(Backends, PosixReserveOnAFullDevShmThrowsWhereTouchingWouldRaiseSigbus) {
    if (!isRoot()) GTEST_SKIP() << "needs root to mount a small /dev/shm of its own";
    const std::string name = uniqueName();
    Pipe heard;
    EXPECT_EQ(runInChild([&] {  // a signal would show as 128 + its number
                  if (::unshare(CLONE_NEWNS) != 0 || ::mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                      ::mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=1m,mode=1777") != 0) return 90;
                  LogCapture log;
                  std::optional<SharedMemory> big(std::in_place, name, 4 << 20, true, "", P);
                  heard.send(thrown([&] { big->reserve(); }));
                  for (const std::string& record : log.messages()) heard.send("\n" + record);
                  const bool unchanged = big->isAttached() && ownership(name, P).allocated == 0;
                  big.reset();
                  return unchanged && !exists(name, P) ? 0 : 91;
              }),
              0);
    EXPECT_EQ(heard.receive(), "runtime_error: SystemError:SharedMemory:reserve:posix_fallocate/" + name +
                                   ":error=28\nreserve(): Failed to reserve the segment: </" + name + ">. (Error 28)");
}

TEST(Handle, ConstructorsOpenTheNameAsGivenAndStaticFunctionsTheDerivedOne) {
    for (const Spec spec : kBackEnds) {
        const std::string name = uniqueName(), derived = sm::deriveSegmentName(name, "");
        {
            SharedMemory plain(name, kSize, std::string(), spec), null(name + "-n", kSize, nullptr, spec);
            EXPECT_TRUE(plain.isCreator() && null.isCreator() && exists(name + "-n", spec) && !exists(derived, spec));
            SharedMemory viaCreate = SharedMemory::create(name, kSize, "", spec);
            SharedMemory viaFind = SharedMemory::find(name, kSize, "", spec);
            SharedMemory viaEither = SharedMemory::createOrFind(name, kSize, "", spec);
            EXPECT_TRUE(viaCreate.isCreator() && exists(derived, spec));
            EXPECT_FALSE(viaFind.isCreator() || viaEither.isCreator());
            std::strcpy(bytes(viaCreate), "derived");
            EXPECT_STREQ(bytes(viaFind), "derived");
            EXPECT_STREQ(bytes(viaEither), "derived");
            EXPECT_STRNE(bytes(plain), "derived") << "two names, one segment";
        }
        EXPECT_FALSE(exists(name, spec) || exists(name + "-n", spec) || exists(derived, spec));
    }
}

TEST(Handle, EmptyHandlesFromMovesOrAnUnknownBackEndRefuseEverything) {
    const auto unknown = static_cast<Spec>(2);
    const std::string name = uniqueName(), derived = sm::deriveSegmentName(name, "staff");
    SharedMemory a(name, kSize, "", unknown), b(name, kSize, true, "", unknown);
    SharedMemory c = SharedMemory::createOrFind(name, kSize, "staff", unknown), moved(std::move(a));
    EXPECT_FALSE(exists(name, P) || exists(name, V) || exists(derived, P) || exists(derived, V));
    const std::string refusal =
        "logic_error: SharedMemory: the handle is empty (moved from, or built with an unknown back end)";
    for (SharedMemory* empty : {&a, &b, &c, &moved}) {
        const std::string refused = thrown([&] { empty->isCreator(); }) + thrown([&] { empty->getPointer(); }) +
                                    thrown([&] { empty->isAttached(); }) + thrown([&] { empty->markForDeletion(); }) +
                                    thrown([&] { empty->makePersistent(); }) + thrown([&] { empty->getTrustee(); }) +
                                    thrown([&] { empty->getOwner(); }) + thrown([&] { empty->reserve(); });
        EXPECT_EQ(refused, refusal + refusal + refusal + refusal + refusal + refusal + refusal + refusal);
    }
}

TEST(Handle, MovesTakeTheSegmentAndATeardownRemovesItOnlyWhileItIsMarkedForDeletion) {
    for (const Spec spec : kBackEnds) {
        const std::string a = uniqueName("a"), b = uniqueName("b"), kept = uniqueName("kept");
        const int mappings = segmentMappingCount();
        {
            SharedMemory first(a, kSize, "", spec), target(b, kSize, "", spec), persistent(kept, kSize, "", spec);
            void* const address = first.getPointer();
            SharedMemory second(std::move(first));
            target = std::move(second);
            EXPECT_EQ(target.getPointer(), address);
            EXPECT_FALSE(exists(b, spec)) << "a marked segment goes";
            std::strcpy(bytes(persistent), "kept");
            persistent.makePersistent();
            persistent = std::move(target);
            EXPECT_EQ(segmentMappingCount(), mappings + 1) << "an unmarked segment is only detached";
            {
                SharedMemory finder(kept, kSize, false, "", spec);
                EXPECT_STREQ(bytes(finder), "kept");
                finder.markForDeletion();
            }
            EXPECT_FALSE(exists(kept, spec));
            // Assigning an empty handle tears down what the target held.
            SharedMemory emptied(kept, kSize, "", spec);
            emptied = std::move(first);
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
