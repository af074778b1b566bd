// Failures the kernel will not produce on demand, injected through the syscall seam: each must
// leave exactly its records, its exception, and nothing else behind.
#include <boost/log/attributes/function.hpp>
#include <boost/log/core/core.hpp>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Leaks.hpp"
#include "LogCapture.hpp"
#include "Names.hpp"
#include "Processes.hpp"
#include "Seam.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "sysv/SysVImpl.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;
using spf_test::Call;
using spf_test::Fault;

namespace {

constexpr unsigned long kSize = 4096;
constexpr SharedMemory::ImplementationSpecifications P = SharedMemory::Posix;
constexpr SharedMemory::ImplementationSpecifications V = SharedMemory::SysV;

// What runs while the faults are armed: the subject's construction, one of its queries, or its
// destruction.
enum class Step { Construct, Owner, Trustee, Destroy };

struct Row {
    const char* name;
    SharedMemory::ImplementationSpecifications spec;
    bool finder;          // opens a segment that another handle created with the same trustee
    const char* trustee;  // requested by the subject (and given by the finder's creator)
    Step step;
    std::vector<Fault> faults;
    // {N}: the segment name; {U}: the owner's user name; {E}: the current username.
    std::vector<std::string> records;
    const char* thrown;  // "runtime_error", "invalid_argument" or "none"
    std::string text;
};

Fault fail(Call call, int error, int skip = 0) { return {call, error, skip, false, -1}; }
Fault failAfter(Call call, int error) { return {call, error, 0, true, -1}; }
Fault failShmctl(int command, int error, bool performFirst = false) {
    return {Call::shmctl, error, 0, performFirst, command};
}

const std::vector<Row> kRows = {
    // POSIX: opening.
    {"posix create shm_open", P, false, "", Step::Construct, {fail(Call::shm_open, EMFILE)},
     {"create(): Failed to create the segment: <{N}>. (Error 24)"}, "runtime_error",
     "SystemError:SharedMemory:create:shm_open:  name=<{N}>, trustee=<>, error=24"},
    {"posix find shm_open", P, true, "staff", Step::Construct, {fail(Call::shm_open, EMFILE)},
     {"find(): Failed to open the existing segment: <{N}> with trustee <>. (Error 24)"},
     "runtime_error",
     "SystemError:SharedMemory:find:shm_open:  name=<{N}>, owning group=<staff>, "
     "owning user=<{U}>, selected group=<>, current username=<{E}>, error=24"},
    // POSIX: trustee assignment (record, release, then the text reads errno again).
    {"posix getgrnam_r", P, false, "staff", Step::Construct, {fail(Call::getgrnam_r, EIO)},
     {"setTrustee(): Failed to find the specified group: <staff>. (Error 5)"}, "invalid_argument",
     "SystemError:SharedMemory:getgrnam:trustee=staff:error= 5"},
    {"posix fchown", P, false, "staff", Step::Construct, {fail(Call::fchown, EPERM)},
     {"setTrustee(): Failed to change the group to: <staff>. (Error 1)"}, "runtime_error",
     "SystemError:SharedMemory:setTrustee:fchown staff:error=1"},
    {"posix fchown, then shm_unlink", P, false, "staff", Step::Construct,
     {fail(Call::fchown, EPERM), failAfter(Call::shm_unlink, EACCES)},
     {"setTrustee(): Failed to change the group to: <staff>. (Error 1)",
      "removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)"},
     "runtime_error", "SystemError:SharedMemory:setTrustee:fchown staff:error=13"},
    {"posix setTrustee fstat", P, false, "staff", Step::Construct, {fail(Call::fstat, EIO)},
     {"setTrustee(): Failed to stat the segment: <{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:setTrustee:fstat{N}:error=5"},
    {"posix fchmod", P, false, "staff", Step::Construct, {fail(Call::fchmod, EPERM)},
     {"setTrustee(): Failed to change permissions to include the group. (Error 1)"},
     "runtime_error", "SystemError:SharedMemory:setTrustee:fchmod:error=1"},
    {"posix finder's trustee query", P, true, "staff", Step::Construct,
     {fail(Call::getgrgid_r, EIO)},
     {"getTrustee(): Failed to get the group struct. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:getTrustee:getgrgid{N}:error=5"},
    // POSIX: sizing and mapping (release first, then record and text read errno).
    {"posix creator size check fstat", P, false, "", Step::Construct, {fail(Call::fstat, EIO)},
     {"isTruncated(): Failed to stat the segment: <{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:attach:fstat{N}:error=5"},
    {"posix creator size check fstat after ftruncate", P, false, "", Step::Construct,
     {fail(Call::fstat, EIO, 1)},
     {"isTruncated(): Failed to stat the segment: <{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:attach:fstat{N}:error=5"},
    {"posix finder isTruncated fstat (after its trustee query's)", P, true, "", Step::Construct,
     {fail(Call::fstat, EIO, 1)},
     {"isTruncated(): Failed to stat the segment: <{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:attach:fstat{N}:error=5"},
    {"posix ftruncate", P, false, "", Step::Construct, {fail(Call::ftruncate, EIO)},
     {"attach(): Failed to truncate the segment: <{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:attach:ftruncate{N}:error=5"},
    {"posix mmap", P, false, "", Step::Construct, {fail(Call::mmap, ENOMEM)},
     {"attach(): Failed to map the segment: <{N}>. (Error 12)"}, "runtime_error",
     "SystemError:SharedMemory:attach:mmap{N}:error=12"},
    {"posix mmap, then shm_unlink", P, false, "", Step::Construct,
     {fail(Call::mmap, ENOMEM), failAfter(Call::shm_unlink, EACCES)},
     {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)",
      "attach(): Failed to map the segment: <{N}>. (Error 13)"},
     "runtime_error", "SystemError:SharedMemory:attach:mmap{N}:error=13"},
    // POSIX: queries.
    {"posix getOwner fstat", P, false, "", Step::Owner, {fail(Call::fstat, EIO)},
     {"getOwner(): Failed to stat the segment: <{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:getOwner:fstat:{N} :error=5"},
    {"posix getOwner getpwuid_r", P, false, "", Step::Owner, {fail(Call::getpwuid_r, EIO)},
     {"getOwner(): Failed to get the user struct<{N}>. (Error 5)"}, "runtime_error",
     "SystemError:SharedMemory:getOwner:getpwuid {N} :error=5"},
    {"posix getTrustee fstat", P, false, "staff", Step::Trustee, {fail(Call::fstat, EIO)},
     {"getTrustee(): Failed to stat the segment: <{N}> for trustee: <staff>. (Error 5)"},
     "runtime_error", "SystemError:SharedMemory:getTrustee:fstat:{N},staff:error=5"},
    {"posix getTrustee getgrgid_r", P, false, "staff", Step::Trustee,
     {fail(Call::getgrgid_r, ENOMEM)},
     {"getTrustee(): Failed to get the group struct. (Error 12)"}, "runtime_error",
     "SystemError:SharedMemory:getTrustee:getgrgid{N}:error=12"},
    // POSIX: teardown goes on past each failure.
    {"posix munmap", P, false, "", Step::Destroy, {failAfter(Call::munmap, EINVAL)},
     {"detach(): Failed to unmap/munmap the segment: <{N}>. (Error 22)"}, "none", ""},
    {"posix close", P, false, "", Step::Destroy, {failAfter(Call::close, EIO)},
     {"detach(): Failed to detach/close the segment: <{N}>. (Error 5)"}, "none", ""},
    {"posix shm_unlink", P, false, "", Step::Destroy, {failAfter(Call::shm_unlink, EACCES)},
     {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 13)"}, "none", ""},
    // System V: opening and attaching.
    {"sysv create shmget", V, false, "", Step::Construct, {fail(Call::shmget, ENOSPC)},
     {"create(): Failed to create the segment: <{N}>. (Error 28)"}, "runtime_error",
     "SystemError:SharedMemory:create:shmget{N}:error=28"},
    {"sysv shmat", V, false, "", Step::Construct, {fail(Call::shmat, ENOMEM)},
     {"attach(): Failed to attach the segment: <{N}>. (Error 12)"}, "runtime_error",
     "SystemError:SharedMemory:attach:shmat{N}:error=12"},
    {"sysv shmat, then IPC_RMID", V, false, "", Step::Construct,
     {fail(Call::shmat, ENOMEM), failShmctl(IPC_RMID, EPERM, true)},
     {"attach(): Failed to attach the segment: <{N}>. (Error 12)",
      "removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 1)"},
     "runtime_error", "SystemError:SharedMemory:attach:shmat{N}:error=1"},
    {"sysv finder shmat", V, true, "", Step::Construct, {fail(Call::shmat, EACCES)},
     {"attach(): Failed to attach the segment: <{N}>. (Error 13)"}, "runtime_error",
     "SystemError:SharedMemory:attach:shmat{N}:error=13"},
    // System V: trustee assignment.
    {"sysv setTrustee IPC_STAT", V, false, "staff", Step::Construct, {failShmctl(IPC_STAT, EACCES)},
     {"setTrustee(): Failed to stat the segment: <{N}>. (Error 13)"}, "runtime_error",
     "SystemError:SharedMemory:setTrustee:shmctl(IPC_STAT){N}:error=13"},
    {"sysv setTrustee IPC_SET", V, false, "staff", Step::Construct, {failShmctl(IPC_SET, EPERM)},
     {"setTrustee(): Failed to set the new permissions: <{N}>. (Error 1)"}, "runtime_error",
     "SystemError:SharedMemory:setTrustee:shmctl(IPC_SET){N}:error=1"},
    {"sysv finder's trustee query", V, true, "staff", Step::Construct,
     {failShmctl(IPC_STAT, EACCES)},
     {"getTrustee(): Failed to stat the segment: <{N}>. (Error 13)"}, "runtime_error",
     "SystemError:SharedMemory:getTrustee:shmctl{N}:error=13"},
    // System V: queries.
    {"sysv getOwner IPC_STAT", V, false, "", Step::Owner, {failShmctl(IPC_STAT, EACCES)},
     {"getOwner(): Failed to stat the segment: <{N}>. (Error 13)"}, "runtime_error",
     "SystemError:SharedMemory:getOwner:shmctl{N}:error=13"},
    {"sysv getTrustee IPC_STAT", V, false, "", Step::Trustee, {failShmctl(IPC_STAT, EACCES)},
     {"getTrustee(): Failed to stat the segment: <{N}>. (Error 13)"}, "runtime_error",
     "SystemError:SharedMemory:getTrustee:shmctl{N}:error=13"},
    // System V: teardown goes on past each failure.
    {"sysv shmdt", V, false, "", Step::Destroy, {failAfter(Call::shmdt, EINVAL)},
     {"detach(): Failed to detach the segment: <{N}>. (Error 22)"}, "none", ""},
    {"sysv IPC_RMID", V, false, "", Step::Destroy, {failShmctl(IPC_RMID, EPERM, true)},
     {"removeAndClose(): Failed to remove/unlink the segment: <{N}>. (Error 1)"}, "none", ""},
};

std::string expand(std::string text, const std::string& segment) {
    const passwd* self = ::getpwuid(::geteuid());
    const std::pair<std::string, std::string> pieces[] = {
        {"{N}", segment},
        {"{U}", self != nullptr ? self->pw_name : ""},
        {"{E}", sm::getCurrentUserName()}};
    for (const auto& [placeholder, value] : pieces) {
        auto at = text.find(placeholder);
        for (; at != std::string::npos; at = text.find(placeholder, at + value.size())) {
            text.replace(at, placeholder.size(), value);
        }
    }
    return text;
}

bool segmentExists(SharedMemory::ImplementationSpecifications spec, const std::string& segment) {
    return spec == P ? spf_test::posixObjectExists(segment)
                     : spf_test::sysvKeyExists(sm::segmentKey(segment));
}

TEST(Faults, EveryInjectedFailureReportsExactlyAndLeavesNothingBehind) {
    int injected = 0;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        if (*row.trustee != '\0' && !spf_test::isRoot()) {
            continue;  // handing a segment to staff needs root
        }
        const std::string name = spf_test::uniqueName("fault");
        const std::string segment = "/" + name;
        std::optional<SharedMemory> owner;
        if (row.finder) {
            owner.emplace(name, kSize, true, row.trustee, row.spec);
        }
        const int descriptors = spf_test::openDescriptorCount();
        const int mappings = spf_test::segmentMappingCount();
        std::optional<SharedMemory> subject;
        if (row.step != Step::Construct) {
            subject.emplace(name, kSize, true, row.trustee, row.spec);
        }

        spf_test::LogCapture capture;
        spf_test::disarmAll();
        for (const Fault& fault : row.faults) {
            spf_test::arm(fault);
        }
        std::string thrown = "none";
        std::string text;
        try {
            switch (row.step) {
                case Step::Construct:
                    subject.emplace(name, kSize, !row.finder, row.trustee, row.spec);
                    break;
                case Step::Owner: subject->getOwner(); break;
                case Step::Trustee: subject->getTrustee(); break;
                case Step::Destroy: subject.reset(); break;
            }
        } catch (const std::invalid_argument& error) {
            thrown = "invalid_argument";
            text = error.what();
        } catch (const std::runtime_error& error) {
            thrown = "runtime_error";
            text = error.what();
        }
        for (const Fault& fault : row.faults) {
            EXPECT_GT(spf_test::callCount(fault.call), fault.skip)
                << callName(fault.call) << " never reached";
        }
        spf_test::disarmAll();
        ++injected;

        const bool query = row.step == Step::Owner || row.step == Step::Trustee;
        EXPECT_EQ(subject.has_value(), query) << "the subject outlived its step";
        subject.reset();  // a query's subject goes the ordinary way, which must add no record
        EXPECT_EQ(thrown, row.thrown);
        EXPECT_EQ(text, expand(row.text, segment));
        std::vector<std::string> expected;
        for (const std::string& record : row.records) {
            expected.push_back(expand(record, segment));
        }
        EXPECT_EQ(capture.messages(), expected);
        for (const spf_test::CapturedRecord& record : capture.records()) {
            EXPECT_EQ(record.severity, 512);
            EXPECT_EQ(record.channel, "agent::spf::sharedmemory");
        }
        EXPECT_EQ(segmentExists(row.spec, segment), row.finder)
            << "only a segment another handle created may stay";
        EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
        EXPECT_EQ(spf_test::segmentMappingCount(), mappings);
        owner.reset();
        EXPECT_FALSE(segmentExists(row.spec, segment));
    }
    std::cout << "faults injected: " << injected << std::endl;
}

// The logging core runs attributes, filters and sinks between the failed call and the record's
// text; whatever errno they leave must not replace the failed call's number.
TEST(Faults, RecordsKeepTheFailedCallsErrnoWhateverTheLoggingCoreDoes) {
    const auto core = boost::log::core::get();
    const auto added = core->add_global_attribute(
        "SpfTestErrnoClobber", boost::log::attributes::make_function([] {
            errno = EDOM;
            return 0;
        }));
    spf_test::LogCapture capture;
    const std::string name = spf_test::uniqueName("clobber");
    std::string text;
    {
        SharedMemory creator(name, kSize, true, "", P);
        spf_test::ScopedFault fault({Call::fstat, EIO});
        try {
            creator.getOwner();
        } catch (const std::runtime_error& error) {
            text = error.what();
        }
    }
    core->remove_global_attribute(added.first);
    const std::vector<std::string> expected = {"getOwner(): Failed to stat the segment: </" + name +
                                                ">. (Error 5)"};
    EXPECT_EQ(capture.messages(), expected);
    EXPECT_EQ(text, "SystemError:SharedMemory:getOwner:fstat:/" + name + " :error=5");
}

}  // namespace
