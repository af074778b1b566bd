// What the test binaries share: names and leak probes (Leaks.cpp, which also wraps every binary in
// a run-wide leak check), child processes and users (Processes.cpp), log capture (LogCapture.cpp)
// and the syscall fault seam (Seam.cpp).
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace spf_test {

using Spec = agent::spf::sharedmemory::SharedMemory::ImplementationSpecifications;
constexpr Spec P = agent::spf::sharedmemory::SharedMemory::Posix, V = agent::spf::sharedmemory::SharedMemory::SysV;
constexpr Spec kBackEnds[] = {P, V};

std::string uniqueName(const std::string& tag = "seg");  // the pid and a counter
int openDescriptorCount();
// Mappings of POSIX objects and System V segments only: an allocator maps memory of its own.
int segmentMappingCount();
// Permission bits, owner, group, size and allocated bytes (System V: resident) of the segment of
// `name` (without its leading "/") as /dev/shm or the System V table record them; all 0 if none.
struct Ownership { unsigned mode = 0; uid_t uid = 0; gid_t gid = 0; unsigned long long size = 0, allocated = 0; };
Ownership ownership(const std::string& name, Spec spec);
inline bool exists(const std::string& name, Spec spec) { return ownership(name, spec).mode != 0; }

// What `body` throws, as "<type>: <text>" for the library's exception types; "" when it returns.
template <typename Body>
std::string thrown(Body&& body) {
    try {
        body();
    } catch (const std::exception& error) {
        const char* type = typeid(error) == typeid(std::runtime_error)      ? "runtime_error"
                           : typeid(error) == typeid(std::invalid_argument) ? "invalid_argument"
                           : typeid(error) == typeid(std::logic_error)      ? "logic_error"
                                                                            : "other";
        return type + (": " + std::string(error.what()));
    }
    return "";
}

constexpr uid_t kNobody = 65534;
bool isRoot();
gid_t groupId(const char* name);
// Runs `body` in a forked child; returns its exit code, or 128 + signal (a SIGBUS shows as 135).
int runInChild(const std::function<int()>& body);
// The same as user nobody with exactly the supplementary `groups`. Needs root.
int runAsNobody(const std::vector<gid_t>& groups, const std::function<int()>& body);

// A forked child that is killed if the test ends before join().
struct Child {
    explicit Child(const std::function<int()>& body);
    ~Child();
    Child(Child&& other) noexcept : pid(other.pid) { other.pid = -1; }
    int join();
    pid_t pid;
};

// A pipe between a parent and its children. receive() closes this process's write end and reads
// until every process has closed its own: children block in it until the parent calls it too (a
// start gate), and the parent reads there what its ended children sent.
struct Pipe {
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    void send(const std::string& text);
    std::string receive();
    int fds[2];
};

// The records that reach the Boost.Log core while it lives; one that is not at severity 512 on
// the library's channel reads "[stray] " + its message.
struct LogCapture {
    LogCapture();
    ~LogCapture();
    std::vector<std::string> messages() const;
    struct State;
    std::shared_ptr<State> state;
};

// The test binaries define the system calls the library makes and forward them to the real ones
// unless a fault is armed: this reaches failures the kernel will not produce on demand.
enum class Call { shm_open, shm_unlink, fstat, ftruncate, mmap, munmap, close, fchown, fchmod,
                  shmget, shmat, shmdt, shmctl, getgrgid_r, getgrnam_r, getpwuid_r, flock,
                  posix_fallocate, madvise, kCount };
struct Fault {
    Call call;
    int error;                  // errno the failing call leaves
    int skip = 0;               // matching calls let through before the one that fails, once
    bool performFirst = false;  // run the real call, then report failure (keeps tests leak-free)
    int shmctlCommand = -1;     // for shmctl: fail only this command
};
void arm(const Fault& fault);
void disarmAll();  // also resets the call counts and the range errors below
int callCount(Call call);
// The reentrant user and group lookups answer ERANGE while their buffer is smaller than `bytes`.
void forceRangeErrorsBelow(std::size_t bytes);

}  // namespace spf_test
