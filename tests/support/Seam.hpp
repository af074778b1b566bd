// Syscall fault seam: the test binaries define the system calls the library makes, forwarding
// to the real ones unless a fault is armed. This reaches the failure paths the kernel will not
// produce on demand (a failing fstat on a good descriptor, an munmap that fails...).
#pragma once

#include <cstddef>

namespace spf_test {

enum class Call {
    shm_open, shm_unlink, fstat, ftruncate, mmap, munmap, close, fchown, fchmod, flock,
    shmget, shmat, shmdt, shmctl, getgrgid_r, getgrnam_r, getpwuid_r, kCount
};

const char* callName(Call call);

struct Fault {
    Call call;
    int error;              // errno the failing call leaves
    int skip = 0;           // calls let through before the one that fails
    bool performFirst = false;  // run the real call, then report failure (keeps tests leak-free)
    int shmctlCommand = -1;     // for shmctl: fail only this command
};

// Arms one fault: the (skip+1)-th matching call fails once. Replaces any armed fault of the
// same call.
void arm(const Fault& fault);
void disarmAll();
// Calls of `call` made since the last disarmAll() (or process start).
int callCount(Call call);

// Makes the reentrant group/user lookups answer ERANGE while the buffer is smaller than
// `bytes` (0 turns it off); the largest buffer seen is recorded.
void forceRangeErrorsBelow(std::size_t bytes);
std::size_t largestLookupBuffer();

// Disarms everything when it goes out of scope.
class ScopedFault {
public:
    explicit ScopedFault(const Fault& fault) { arm(fault); }
    ~ScopedFault() { disarmAll(); }
    ScopedFault(const ScopedFault&) = delete;
    ScopedFault& operator=(const ScopedFault&) = delete;
};

}  // namespace spf_test
