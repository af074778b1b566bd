// Names are predictable, so a finder attaches only to what someone it trusts controls: every squat is
// refused, for unprivileged and root finders alike, while what the library's own users make still attaches.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <tuple>

#include "Support.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using namespace spf_test;

namespace {

constexpr unsigned long kSize = 4096;

// An outsider with a group of its own, also in users, and a member of staff (primary group users); removed
// however the test ends.
struct ScratchUsers {
    const std::string outsider = "spftrust" + std::to_string(::getpid()) + "o", member = outsider + "m";
    const std::string add = "useradd -M -U -G users " + outsider + " && useradd -M -N -G staff " + member;
    const bool made = std::system(add.c_str()) == 0;
    ~ScratchUsers() { (void)!std::system(("userdel " + outsider + "; userdel " + member + " 2>/dev/null").c_str()); }
};
uid_t uidOf(const std::string& user) { return ::getpwnam(user.c_str())->pw_uid; }

int runAs(const std::string& user, const std::function<int()>& body) {
    return runInChild([&] {
        const passwd* account = ::getpwnam(user.c_str());
        const bool became = ::initgroups(user.c_str(), account->pw_gid) == 0 && ::setgid(account->pw_gid) == 0;
        return became && ::setuid(account->pw_uid) == 0 ? body() : 90;
    });
}

// The name the static functions derive for `name` in a process of effective user `uid`.
std::string derivedAs(uid_t uid, const std::string& name, const std::string& trustee) {
    const std::string derived = ((void)!::seteuid(uid), sm::deriveSegmentName(name, trustee));
    return (void)!::seteuid(0), derived;
}

void remove(const std::string& name, Spec spec) {
    spec == P ? (void)::shm_unlink(("/" + name).c_str())
              : (void)::shmctl(::shmget(sm::deriveSystemVKey(name), 0, 0), IPC_RMID, nullptr);
}

// How an outsider squats a name: the mode, and whether it stamps the member as owner and staff as group
// (`forged`), or gives it the group users it shares with the member (but opens it to others too).
struct Squat { Spec spec; unsigned mode; bool forged = false, users = false; };
const Squat kSquats[] = {{P, 0666}, {P, 0777}, {P, 0000}, {P, 0770}, {P, 0777, false, true},
                         {V, 0777}, {V, 0770, true}, {V, 0770}};

int squat(const Squat& how, const std::string& name, uid_t member) {
    shmid_ds status;
    const int id = how.spec == P ? ::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0)
                                 : ::shmget(sm::deriveSystemVKey(name), kSize, IPC_CREAT | IPC_EXCL | 0600);
    if (how.spec == P) return id == -1 || ::fchown(id, -1, how.users ? groupId("users") : -1) || ::fchmod(id, how.mode);
    if (id == -1 || ::shmctl(id, IPC_STAT, &status) != 0) return 1;
    status.shm_perm.mode = how.mode;
    if (how.forged) status.shm_perm.uid = member, status.shm_perm.gid = groupId("staff");
    return ::shmctl(id, IPC_SET, &status);
}

TEST(Trust, FindersRefuseEverySquatAndStillAttachToWhatTrustedUsersMake) {
    if (!isRoot()) GTEST_SKIP() << "needs root to make scratch users and act as them";
    ScratchUsers users;
    ASSERT_TRUE(users.made);
    const uid_t outsider = uidOf(users.outsider), member = uidOf(users.member);
    for (const Squat& how : kSquats) {
        for (const auto& [finder, viaStatic] : {std::pair{member, true}, {member, false}, {0u, true}, {0u, false}}) {
            const std::string base = uniqueName("sq"), name = viaStatic ? derivedAs(finder, base, "") : base;
            SCOPED_TRACE(name + " mode " + std::to_string(how.mode) + " finder " + std::to_string(finder));
            ASSERT_EQ(runAs(users.outsider, [&] { return squat(how, name, member); }), 0);
            const Ownership before = ownership(name, how.spec);
            Pipe heard;
            const auto find = [&] {
                LogCapture log;
                const int descriptors = openDescriptorCount();
                heard.send(thrown([&] { viaStatic ? SharedMemory::createOrFind(base, kSize, "", how.spec)
                                                  : SharedMemory(name, kSize, false, "", how.spec); }));
                for (const std::string& record : log.messages()) heard.send("\n" + record);
                return openDescriptorCount() - descriptors;
            };
            EXPECT_EQ(finder == 0 ? runInChild(find) : runAs(users.member, find), 0) << "a descriptor stays open";
            const std::string text = heard.receive(), who = how.forged && finder == 0 ? users.member : users.outsider;
            const std::string uid = std::to_string(uidOf(who));
            const std::string group = how.forged ? "staff" : how.users ? "users" : users.outsider;
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o", how.mode);
            // The kernel itself shuts the member out when neither others nor its groups have access.
            if (finder != 0 && (how.mode & 07) == 0 && !how.forged) {
                EXPECT_NE(text.find(", error=13\nfind(): Failed to open the existing segment: </"), std::string::npos);
            } else {
                EXPECT_EQ(text, "runtime_error: SystemError:SharedMemory:find:trust: name=</" + name +
                                    ">, untrusted user=<" + who + ">, uid=<" + uid + ">, group=<" + group +
                                    ">, mode=<" + mode + ">, error=13\nfind(): Refused the segment: </" + name +
                                    "> controlled by the untrusted user <" + who + "> (uid " + uid + ") with group <" +
                                    group + "> and mode <" + mode + ">. (Error 13)");
            }
            const Ownership after = ownership(name, how.spec);
            EXPECT_TRUE(after.mode == before.mode && after.gid == before.gid && after.size == before.size &&
                        after.uid == before.uid && after.uid == (how.forged ? member : outsider));
            remove(name, how.spec);
        }
    }
    // What the library's own users make: a member's staff segment for members of another user (the trustee
    // named or adopted) and for root naming staff, a member's own segment for itself, and one of its primary
    // group.
    for (const Spec spec : kBackEnds) {
        using Case = std::tuple<const char*, const char*, uid_t>;
        for (const auto& [made, found, finder] :
             {Case{"staff", "staff", 0}, {"staff", "staff", kNobody}, {"staff", "", kNobody}, {"", "", member},
              {"users", "users", 0}}) {
            const std::string base = uniqueName("ok"), name = derivedAs(member, base, made);
            const auto make = [&] { return SharedMemory::create(base, kSize, made, spec).makePersistent(), 0; };
            ASSERT_EQ(runAs(users.member, make), 0);
            const auto attaches = [&] {
                SharedMemory shm = *found == *made ? SharedMemory::find(base, kSize, found, spec)
                                                   : SharedMemory(name, kSize, false, found, spec);
                return shm.isAttached() && !shm.isCreator() && shm.getTrustee() == made ? 0 : 1;
            };
            EXPECT_EQ(finder == 0        ? runInChild(attaches)
                      : finder == member ? runAs(users.member, attaches)
                                         : runAsNobody({groupId("staff")}, attaches), 0) << name << " by " << finder;
            remove(name, spec);
        }
    }
}

TEST(Trust, ALockHolderDelaysAFinderByAboutASecondAndAFailureDescribesNoLinkTarget) {
    const std::string name = uniqueName("lock"), link = uniqueName("link"), target = "/dev/shm/" + uniqueName("target");
    {  // Sizing lets the lock go again, so that no later finder of an empty object waits for this one.
        SharedMemory creator(name, kSize, true);
        const int other = ::shm_open(("/" + name).c_str(), O_RDWR, 0);
        EXPECT_EQ(::flock(other, LOCK_EX | LOCK_NB), 0);
        ::close(other);
    }
    const int fd = ::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0700);
    Pipe locked;
    Child holder([&] {
        if (::flock(::shm_open(("/" + name).c_str(), O_RDWR, 0), LOCK_EX) == 0) locked.send("locked");
        return ::close(locked.fds[1]), ::sleep(8), 0;
    });
    ASSERT_EQ(locked.receive(), "locked");
    disarmAll();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(SharedMemory(name, kSize, false).isAttached());
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(waited.count() >= 0.9 && waited.count() < 5) << waited.count() << " s";
    EXPECT_LT(callCount(Call::flock), 1000) << "the wait pauses between attempts";
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), -1) << "the holder still holds the lock";
    EXPECT_EQ(ownership(name, P).size, kSize);
    ::close(fd), ::shm_unlink(("/" + name).c_str());
    // A link planted at a name leads nowhere: not even the failure's text looks where it points.
    ::close(::open(target.c_str(), O_CREAT | O_WRONLY, 0)), ::chmod(target.c_str(), 0770);
    ASSERT_EQ(::symlink(target.c_str(), ("/dev/shm/" + link).c_str()), 0);
    LogCapture quiet;
    const std::string described = thrown([&] { SharedMemory(link, kSize, false); });
    EXPECT_NE(described.find("owning group=<>, owning user=<>"), std::string::npos) << described;
    ::unlink(("/dev/shm/" + link).c_str()), ::unlink(target.c_str());
    // Nor is anything but a regular file a segment, whoever made it.
    ASSERT_EQ(::mkfifo(("/dev/shm/" + link).c_str(), 0600), 0);
    EXPECT_NE(thrown([&] { SharedMemory(link, kSize, false); }).find("find:trust: name=</" + link), std::string::npos);
    ::unlink(("/dev/shm/" + link).c_str());
}

}  // namespace
