// Every way opening, querying or closing a segment can go wrong, through the public handle: faults
// the kernel will not produce on demand (injected through the syscall seam), refusals it does
// produce, and inputs no caller should pass. Each must end in exactly its records and exception
// (or a usable or empty handle), and leave no segment, descriptor or mapping behind.
#include <boost/log/attributes/function.hpp>
#include <boost/log/core/core.hpp>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <optional>

#include "Support.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using spf_test::Call;
using spf_test::Fault;
using spf_test::P;
using spf_test::V;

namespace {

constexpr unsigned long kSize = 4096;

// How the subject opens its segment, and what runs while the faults are armed.
enum How { Either, Create, Find, StaticEither, StaticCreate, StaticFind };
enum Step { Open, Owner, Trustee, Close, Reserve };

struct Row {
    const char* label;
    spf_test::Spec spec = P;
    How how = Either;
    // {B}: a unique base; "~": as many 'n' as bring the name so far to 255 bytes.
    std::string name = "{B}";
    unsigned long size = kSize;
    std::string trustee = "";
    const char* existing = nullptr;  // the trustee another handle created the segment with first
    Step step = Open;
    std::vector<Fault> faults = {};
    // "attached", "unattached", "closed", or the exception. {N}: the segment name as the back end
    // receives it; {E}: the current username.
    std::string outcome = "attached";
    std::vector<std::string> records = {};
};

Fault fail(Call call, int error, int skip = 0) { return {call, error, skip, false, -1}; }
Fault failAfter(Call call, int error) { return {call, error, 0, true, -1}; }
Fault failShmctl(int command, int error, bool performFirst = false) {
    return {Call::shmctl, error, 0, performFirst, command};
}
std::string R(const std::string& text) { return "runtime_error: SystemError:SharedMemory:" + text; }
std::string I(const std::string& text) { return "invalid_argument: SystemError:SharedMemory:getgrnam:trustee=" + text; }

const char* const kRefused = ">, owning group=<>, owning user=<>, selected group=<>, current username=<{E}>, error=22";
const char* const kUnattached =
    "runtime_error: API error: Reserving shared memory is not available to unattached handles";
const char* const kTripped =
    "createOrFind:{N}:the segment could be neither created nor found after 10000 attempts:error=2";
const char* const kTrippedRecord =
    "createOrFind(): Could neither create nor find the segment: <{N}> after 10000 attempts. (Error 2)";

const std::vector<Row> kRows = {
    // POSIX: opening. The trustee is not yet assigned when the create fails.
    {.label = "posix create shm_open", .trustee = "staff", .faults = {fail(Call::shm_open, EMFILE)},
     .outcome = R("create:shm_open:  name=<{N}>, trustee=<>, error=24"),
     .records = {"create(): Failed to create the segment: <{N}>. (Error 24)"}},
    {.label = "posix find shm_open", .how = Find, .trustee = "staff", .existing = "staff",
     .faults = {fail(Call::shm_open, EMFILE)},
     .outcome = R("find:shm_open:  name=<{N}>, owning group=<staff>, owning user=<root>, selected group=<>, "
                  "current username=<{E}>, error=24"),
     .records = {"find(): Failed to open the existing segment: <{N}> with trustee <>. (Error 24)"}},
    // POSIX: trustee assignment (record, release, then the text reads errno again).
    {.label = "posix getgrnam_r", .trustee = "staff", .faults = {fail(Call::getgrnam_r, EIO)},
     .outcome = I("staff:error= 5"),
     .records = {"setTrustee(): Failed to find the specified group: <staff>. (Error 5)"}},
    {.label = "posix fchown, then shm_unlink", .trustee = "staff",
     .faults = {fail(Call::fchown, EPERM), failAfter(Call::shm_unlink, EACCES)},
     .outcome = R("setTrustee:fchown staff:error=13"),
     .records = {"setTrustee(): Failed to change the group to: <staff>. (Error 1)",
                 "removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)"}},
    {.label = "posix setTrustee fstat", .trustee = "staff", .faults = {fail(Call::fstat, EIO)},
     .outcome = R("setTrustee:fstat{N}:error=5"),
     .records = {"setTrustee(): Failed to stat the segment: <{N}>. (Error 5)"}},
    {.label = "posix fchmod", .trustee = "staff", .faults = {fail(Call::fchmod, EPERM)},
     .outcome = R("setTrustee:fchmod:error=1"),
     .records = {"setTrustee(): Failed to change permissions to include the group. (Error 1)"}},
    {.label = "posix finder's trustee query", .how = Find, .trustee = "staff", .existing = "staff",
     .faults = {fail(Call::getgrgid_r, EIO)}, .outcome = R("getTrustee:getgrgid{N}:error=5"),
     .records = {"getTrustee(): Failed to get the group struct. (Error 5)"}},
    // POSIX: sizing and mapping (release first, then record and text read errno).
    {.label = "posix creator size check fstat", .faults = {fail(Call::fstat, EIO)},
     .outcome = R("attach:fstat{N}:error=5"),
     .records = {"isTruncated(): Failed to stat the segment: <{N}>. (Error 5)"}},
    {.label = "posix finder size check fstat (after its trustee query's)", .how = Find, .existing = "",
     .faults = {fail(Call::fstat, EIO, 1)}, .outcome = R("attach:fstat{N}:error=5"),
     .records = {"isTruncated(): Failed to stat the segment: <{N}>. (Error 5)"}},
    {.label = "posix ftruncate, then shm_unlink",
     .faults = {fail(Call::ftruncate, EIO), failAfter(Call::shm_unlink, EACCES)},
     .outcome = R("attach:ftruncate{N}:error=13"),
     .records = {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)",
                 "attach(): Failed to truncate the segment: <{N}>. (Error 13)"}},
    {.label = "posix mmap, then shm_unlink", .faults = {fail(Call::mmap, ENOMEM), failAfter(Call::shm_unlink, EACCES)},
     .outcome = R("attach:mmap{N}:error=13"),
     .records = {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)",
                 "attach(): Failed to map the segment: <{N}>. (Error 13)"}},
    // POSIX: queries; a finder that asked for no trustee adopted the segment's.
    {.label = "posix getOwner fstat", .step = Owner, .faults = {fail(Call::fstat, EIO)},
     .outcome = R("getOwner:fstat:{N} :error=5"),
     .records = {"getOwner(): Failed to stat the segment: <{N}>. (Error 5)"}},
    {.label = "posix getOwner getpwuid_r", .step = Owner, .faults = {fail(Call::getpwuid_r, EIO)},
     .outcome = R("getOwner:getpwuid {N} :error=5"),
     .records = {"getOwner(): Failed to get the user struct<{N}>. (Error 5)"}},
    {.label = "posix getTrustee fstat", .how = Find, .existing = "staff", .step = Trustee,
     .faults = {fail(Call::fstat, EIO)}, .outcome = R("getTrustee:fstat:{N},staff:error=5"),
     .records = {"getTrustee(): Failed to stat the segment: <{N}> for trustee: <staff>. (Error 5)"}},
    {.label = "posix getTrustee getgrgid_r", .trustee = "staff", .step = Trustee,
     .faults = {fail(Call::getgrgid_r, ENOMEM)}, .outcome = R("getTrustee:getgrgid{N}:error=12"),
     .records = {"getTrustee(): Failed to get the group struct. (Error 12)"}},
    // POSIX: teardown goes on past each failure.
    {.label = "posix munmap", .step = Close, .faults = {failAfter(Call::munmap, EINVAL)}, .outcome = "closed",
     .records = {"detach(): Failed to unmap/munmap the segment: <{N}>. (Error 22)"}},
    {.label = "posix close", .step = Close, .faults = {failAfter(Call::close, EIO)}, .outcome = "closed",
     .records = {"detach(): Failed to detach/close the segment: <{N}>. (Error 5)"}},
    {.label = "posix shm_unlink", .step = Close, .faults = {failAfter(Call::shm_unlink, EACCES)}, .outcome = "closed",
     .records = {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)"}},
    // System V: opening and attaching.
    {.label = "sysv create shmget", .spec = V, .faults = {fail(Call::shmget, ENOSPC)},
     .outcome = R("create:shmget{N}:error=28"),
     .records = {"create(): Failed to create the segment: <{N}>. (Error 28)"}},
    {.label = "sysv shmat, then IPC_RMID", .spec = V,
     .faults = {fail(Call::shmat, ENOMEM), failShmctl(IPC_RMID, EPERM, true)}, .outcome = R("attach:shmat{N}:error=1"),
     .records = {"attach(): Failed to attach the segment: <{N}>. (Error 12)",
                 "removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 1)"}},
    {.label = "sysv finder shmat", .spec = V, .how = Find, .existing = "", .faults = {fail(Call::shmat, EACCES)},
     .outcome = R("attach:shmat{N}:error=13"),
     .records = {"attach(): Failed to attach the segment: <{N}>. (Error 13)"}},
    // System V: trustee assignment.
    {.label = "sysv setTrustee IPC_STAT", .spec = V, .trustee = "staff", .faults = {failShmctl(IPC_STAT, EACCES)},
     .outcome = R("setTrustee:shmctl(IPC_STAT){N}:error=13"),
     .records = {"setTrustee(): Failed to stat the segment: <{N}>. (Error 13)"}},
    {.label = "sysv setTrustee IPC_SET", .spec = V, .trustee = "staff", .faults = {failShmctl(IPC_SET, EPERM)},
     .outcome = R("setTrustee:shmctl(IPC_SET){N}:error=1"),
     .records = {"setTrustee(): Failed to set the new permissions: <{N}>. (Error 1)"}},
    {.label = "sysv finder's trustee query", .spec = V, .how = Find, .trustee = "staff", .existing = "staff",
     .faults = {failShmctl(IPC_STAT, EACCES)}, .outcome = R("getTrustee:shmctl{N}:error=13"),
     .records = {"getTrustee(): Failed to stat the segment: <{N}>. (Error 13)"}},
    // System V: queries on a handle whose create found the name taken hold identifier -1.
    {.label = "sysv getOwner unattached", .spec = V, .how = Create, .existing = "", .step = Owner,
     .outcome = R("getOwner:shmctl{N}:error=22"),
     .records = {"getOwner(): Failed to stat the segment: <{N}>. (Error 22)"}},
    {.label = "sysv getTrustee unattached", .spec = V, .how = Create, .existing = "", .step = Trustee,
     .outcome = R("getTrustee:shmctl{N}:error=22"),
     .records = {"getTrustee(): Failed to stat the segment: <{N}>. (Error 22)"}},
    // System V: teardown goes on past each failure.
    {.label = "sysv shmdt", .spec = V, .step = Close, .faults = {failAfter(Call::shmdt, EINVAL)}, .outcome = "closed",
     .records = {"detach(): Failed to detach the segment: <{N}>. (Error 22)"}},
    {.label = "sysv IPC_RMID", .spec = V, .step = Close, .faults = {failShmctl(IPC_RMID, EPERM, true)},
     .outcome = "closed", .records = {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 1)"}},
    // Reserving: a refusal leaves the handle attached; an interruption is repeated, and a kernel that
    // does not know populating (before 5.14) leaves the reservation alone.
    {.label = "posix posix_fallocate", .step = Reserve, .faults = {fail(Call::posix_fallocate, ENOSPC)},
     .outcome = R("reserve:posix_fallocate{N}:error=28"),
     .records = {"reserve(): Failed to reserve the segment: <{N}>. (Error 28)"}},
    {.label = "posix madvise", .step = Reserve, .faults = {fail(Call::madvise, EFAULT)},
     .outcome = R("reserve:madvise{N}:error=14"),
     .records = {"reserve(): Failed to populate the segment: <{N}>. (Error 14)"}},
    {.label = "posix reserve interrupted, madvise unknown", .step = Reserve,
     .faults = {fail(Call::posix_fallocate, EINTR), fail(Call::madvise, EINVAL)}, .outcome = "reserved"},
    {.label = "posix reserve unattached", .how = Create, .existing = "", .step = Reserve, .outcome = kUnattached,
     .records = {"reserve(): Cannot be called on an unattached object: <{N}>"}},
    {.label = "sysv reserve unattached", .spec = V, .how = Find, .step = Reserve, .outcome = kUnattached,
     .records = {"reserve(): Cannot be called on an unattached object: <{N}>"}},
    // Taken, missing and foreign segments open nothing, quietly, and remove nothing.
    {.label = "posix create on a taken name", .how = Create, .existing = "", .outcome = "unattached"},
    {.label = "sysv create on a taken name", .spec = V, .how = Create, .existing = "", .outcome = "unattached"},
    {.label = "posix find on a missing name", .how = Find, .outcome = "unattached"},
    {.label = "sysv find on a missing name", .spec = V, .how = StaticFind, .name = "{B}/y", .outcome = "unattached"},
    {.label = "posix find with another trustee", .how = Find, .trustee = "users", .existing = "staff",
     .outcome = "unattached"},
    {.label = "sysv find with another trustee", .spec = V, .how = Find, .trustee = "users", .existing = "staff",
     .outcome = "unattached"},
    // Sizes: a finder may ask for less than the segment holds, but not for more or for nothing.
    {.label = "posix finder of a smaller size", .how = Find, .size = 1024, .existing = ""},
    {.label = "posix finder of a larger size", .size = 8192, .existing = "", .outcome = R("attach:st_size{N}:error=17"),
     .records = {"isTruncated(): Inconsistent shared memory size: <{N}>. (Error17)"}},
    {.label = "posix finder of size 0", .how = Find, .size = 0, .existing = "", .outcome = R("attach:mmap{N}:error=22"),
     .records = {"attach(): Failed to map the segment: <{N}>. (Error 22)"}},
    {.label = "sysv finder of a larger size", .spec = V, .how = Find, .size = 8192, .existing = "staff",
     .outcome = R("find:shmget: name=<{N}>, owning group=<staff>, owning user=<root>, selected group=<>, "
                  "current username=<{E}>, error=22"),
     .records = {"find(): Failed to open the existing segment: <{N}>. (Error 22)"}},
    // ftruncate to 0 succeeds and leaves the object empty: no call failed, errno is what it was.
    {.label = "posix size 0", .size = 0, .outcome = R("attach:ftruncate{N}:error=5"),
     .records = {"attach(): Failed to truncate the segment: <{N}>. (Error 5)"}},
    {.label = "posix size past off_t", .size = ULONG_MAX, .outcome = R("attach:ftruncate{N}:error=22"),
     .records = {"attach(): Failed to truncate the segment: <{N}>. (Error 22)"}},
    // The kernel refuses such a System V size like a taken name: create stays quiet, and
    // create-or-find ends instead of spinning forever.
    {.label = "sysv create of size 0", .spec = V, .how = Create, .size = 0, .outcome = "unattached"},
    {.label = "sysv size 0", .spec = V, .size = 0, .outcome = R(kTripped), .records = {kTrippedRecord}},
    {.label = "sysv size past shmmax", .spec = V, .size = ULONG_MAX, .outcome = R(kTripped),
     .records = {kTrippedRecord}},
    // Names: POSIX takes one path component of at most 255 bytes; System V hashes any bytes.
    {.label = "posix name with a slash", .name = "{B}/x",
     .outcome = R("create:shm_open:  name=<{N}>, trustee=<>, error=22"),
     .records = {"create(): Failed to create the segment: <{N}>. (Error 22)"}},
    // Its text must not describe whatever the name reaches outside the objects (here /etc).
    {.label = "posix find on a name with a slash", .how = Find, .name = "../../etc",
     .outcome = R(std::string("find:shm_open:  name=<{N}") + kRefused),
     .records = {"find(): Failed to open the existing segment: <{N}> with trustee <>. (Error 22)"}},
    {.label = "posix empty name", .name = "", .outcome = R("create:shm_open:  name=<{N}>, trustee=<>, error=22"),
     .records = {"create(): Failed to create the segment: <{N}>. (Error 22)"}},
    {.label = "posix name \".\"", .name = ".", .outcome = R(std::string("find:shm_open:  name=<{N}") + kRefused),
     .records = {"find(): Failed to open the existing segment: <{N}> with trustee <>. (Error 22)"}},
    {.label = "posix name of 255 bytes", .name = "{B}~"},
    {.label = "posix name of 256 bytes", .name = "{B}~n",
     .outcome = R("create:shm_open:  name=<{N}>, trustee=<>, error=36"),
     .records = {"create(): Failed to create the segment: <{N}>. (Error 36)"}},
    {.label = "posix name with a NUL byte", .name = std::string("{B}\0tail", 8)},
    {.label = "sysv name with a slash", .spec = V, .name = "{B}/x"},
    {.label = "posix static, name with a slash and a high byte", .how = StaticEither, .name = "{B}/x\xff"},
    {.label = "sysv static, name of 10 KiB", .spec = V, .how = StaticEither, .name = std::string(10 * 1024, 's')},
    // Trustees: a name that is no group is the caller's error, for creators and finders alike.
    // The reentrant lookup reports a missing entry as -1; getgrnam leaves errno at 0.
    {.label = "posix unknown trustee", .trustee = "nosuchgroup", .outcome = I("nosuchgroup:error= -1"),
     .records = {"setTrustee(): Failed to find the specified group: <nosuchgroup>. (Error -1)"}},
    {.label = "posix finder, unknown trustee", .how = Find, .trustee = "nosuchgroup", .existing = "",
     .outcome = I("nosuchgroup:error= -1"),
     .records = {"setTrustee(): Failed to find the specified group: <nosuchgroup>. (Error -1)"}},
    {.label = "sysv static create, unknown trustee", .spec = V, .how = StaticCreate, .trustee = "nosuchgroup",
     .outcome = I("nosuchgroup:error= 0"),
     .records = {"setTrustee(): Failed to find the specified group: <nosuchgroup>. (Error 0)"}},
    {.label = "sysv finder, unknown trustee", .spec = V, .how = Find, .trustee = "nosuchgroup", .existing = "",
     .outcome = I("nosuchgroup:error= 0"),
     .records = {"setTrustee(): Failed to find the specified group: <nosuchgroup>. (Error 0)"}},
    {.label = "sysv trustee \"50\" (a group id, not a name)", .spec = V, .trustee = "50", .outcome = I("50:error= 0"),
     .records = {"setTrustee(): Failed to find the specified group: <50>. (Error 0)"}},
};

std::string replaced(std::string text, const std::string& placeholder, const std::string& value) {
    for (auto at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at + value.size())) {
        text.replace(at, placeholder.size(), value);
    }
    return text;
}

SharedMemory open(const Row& row, const std::string& name) {
    switch (row.how) {
        case Either: return SharedMemory(name, row.size, row.trustee, row.spec);
        case Create: return SharedMemory(name, row.size, true, row.trustee, row.spec);
        case Find: return SharedMemory(name, row.size, false, row.trustee, row.spec);
        case StaticEither: return SharedMemory::createOrFind(name, row.size, row.trustee, row.spec);
        case StaticCreate: return SharedMemory::create(name, row.size, row.trustee, row.spec);
        case StaticFind: break;
    }
    return SharedMemory::find(name, row.size, row.trustee, row.spec);
}

TEST(Failures, EveryFailureReportsExactlyAndLeavesNothingBehind) {
    // The logging core runs attributes, filters and sinks between a failed call and the texts;
    // whatever errno they leave must not replace the failed call's number.
    const auto core = boost::log::core::get();
    const auto clobber = core->add_global_attribute("SpfTestErrnoClobber", boost::log::attributes::make_function([] {
                                                        errno = EDOM;
                                                        return 0;
                                                    }));
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.label);
        const bool grouped = !row.trustee.empty() || (row.existing != nullptr && *row.existing != '\0');
        if (grouped && !spf_test::isRoot()) continue;  // handing a segment to a group needs root
        std::string name = replaced(row.name, "{B}", spf_test::uniqueName("f"));
        if (const auto pad = name.find('~'); pad != std::string::npos) name.replace(pad, 1, 255 - pad, 'n');
        const std::string segment = row.how >= StaticEither ? sm::deriveSegmentName(name, row.trustee) : name;
        std::optional<SharedMemory> owner, subject;
        if (row.existing != nullptr) owner.emplace(segment, kSize, true, row.existing, row.spec);
        const int descriptors = spf_test::openDescriptorCount(), mappings = spf_test::segmentMappingCount();
        if (row.step != Open) subject.emplace(open(row, name));

        spf_test::LogCapture log;
        spf_test::disarmAll();
        for (const Fault& fault : row.faults) spf_test::arm(fault);
        errno = EIO;  // a stale number, which no text may show unless no call failed
        std::string result;
        const std::string outcome = spf_test::thrown([&] {
            switch (row.step) {
                case Open:
                    subject.emplace(open(row, name));
                    result = subject->isAttached() ? "attached" : "unattached";
                    break;
                case Owner: result = "owner " + subject->getOwner(); break;
                case Trustee: result = "trustee " + subject->getTrustee(); break;
                case Close: subject.reset(), result = "closed"; break;
                case Reserve: subject->reserve(), result = subject->isAttached() ? "reserved" : "?"; break;
            }
        });
        for (const Fault& fault : row.faults) {
            EXPECT_GT(spf_test::callCount(fault.call), fault.skip) << "call " << int(fault.call) << " never reached";
        }
        spf_test::disarmAll();
        subject.reset();  // the ordinary teardown of what opened adds no record

        const auto expand = [&](const std::string& text) {
            return replaced(replaced(text, "{N}", "/" + segment), "{E}", sm::getCurrentUserName());
        };
        std::vector<std::string> expected;
        for (const std::string& text : row.records) expected.push_back(expand(text));
        EXPECT_EQ(outcome.empty() ? result : outcome, expand(row.outcome));
        EXPECT_EQ(log.messages(), expected);
        EXPECT_EQ(spf_test::exists(segment, row.spec), row.existing != nullptr) << "only another's segment stays";
        EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
        EXPECT_EQ(spf_test::segmentMappingCount(), mappings);
        owner.reset();
        EXPECT_FALSE(spf_test::exists(segment, row.spec));
    }
    core->remove_global_attribute(clobber.first);
}

}  // namespace
