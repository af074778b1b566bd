#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "Support.hpp"

namespace spf_test {
namespace {

constexpr int kCalls = static_cast<int>(Call::kCount);

struct Armed {
    std::atomic<bool> active{false}, performFirst{false};
    std::atomic<int> skips{0}, error{0}, command{-1};
};
Armed armed[kCalls];
std::atomic<int> counts[kCalls];
std::atomic<std::size_t> rangeBelow{0};

// Whether this call (of `command`, for shmctl) is the one to fail; consumes the fault.
bool shouldFail(Call call, int command = -1) {
    counts[static_cast<int>(call)]++;
    Armed& fault = armed[static_cast<int>(call)];
    if (!fault.active || (fault.command != -1 && fault.command != command) || fault.skips-- > 0) return false;
    return fault.active.exchange(false);
}

}  // namespace

// Forwards to the real call, or fails it as armed (running it first when asked to).
template <typename Result, typename Function, typename... Args>
Result forward(Call call, Function function, Result failed, int command, Args... args) {
    if (!shouldFail(call, command)) return function(args...);
    const Armed& fault = armed[static_cast<int>(call)];
    if (fault.performFirst) function(args...);
    errno = fault.error;
    return failed;
}

// The reentrant lookups report through their return value, not errno.
template <typename Function, typename Key, typename Entry>
int forwardLookup(Call call, Function function, Key key, Entry* entry, char* buffer, std::size_t size,
                  Entry** result) {
    const bool fail = shouldFail(call);
    if (fail || size < rangeBelow) {
        *result = nullptr;
        return fail ? armed[static_cast<int>(call)].error.load() : ERANGE;
    }
    return function(key, entry, buffer, size, result);
}

void arm(const Fault& fault) {
    Armed& slot = armed[static_cast<int>(fault.call)];
    slot.active = false;
    slot.skips = fault.skip, slot.error = fault.error, slot.command = fault.shmctlCommand;
    slot.performFirst = fault.performFirst;
    slot.active = true;
}

void disarmAll() {
    for (int i = 0; i < kCalls; ++i) armed[i].active = false, counts[i] = 0;
    rangeBelow = 0;
}

int callCount(Call call) { return counts[static_cast<int>(call)]; }
void forceRangeErrorsBelow(std::size_t bytes) { rangeBelow = bytes; }

}  // namespace spf_test

// Each definition replaces the C library's for the whole test binary (the library's objects are
// linked into it); `spec` repeats the C library's exception specification, and `command` is
// what a fault may be limited to.
#define SPF_SEAM(result, call, failed, spec, command, parameters, ...)                                \
    result call parameters spec {                                                                     \
        static const auto real = reinterpret_cast<decltype(&::call)>(::dlsym(RTLD_NEXT, #call));      \
        return spf_test::forward(spf_test::Call::call, real, failed, command, __VA_ARGS__);           \
    }
#define SPF_LOOKUP(call, Entry, Key)                                                                  \
    int call(Key key, Entry* entry, char* buffer, size_t size, Entry** result) {                      \
        static const auto real = reinterpret_cast<decltype(&::call)>(::dlsym(RTLD_NEXT, #call));      \
        return spf_test::forwardLookup(spf_test::Call::call, real, key, entry, buffer, size, result); \
    }

extern "C" {
SPF_SEAM(int, shm_open, -1, , -1, (const char* n, int f, mode_t m), n, f, m)
SPF_SEAM(int, shm_unlink, -1, , -1, (const char* n), n)
SPF_SEAM(int, fstat, -1, __THROW, -1, (int fd, struct stat* s), fd, s)
SPF_SEAM(int, ftruncate, -1, __THROW, -1, (int fd, off_t length), fd, length)
SPF_SEAM(void*, mmap, MAP_FAILED, __THROW, -1, (void* a, size_t n, int p, int f, int fd, off_t o), a, n, p, f, fd, o)
SPF_SEAM(int, munmap, -1, __THROW, -1, (void* a, size_t n), a, n)
SPF_SEAM(int, close, -1, , -1, (int fd), fd)
SPF_SEAM(int, fchown, -1, __THROW, -1, (int fd, uid_t u, gid_t g), fd, u, g)
SPF_SEAM(int, fchmod, -1, __THROW, -1, (int fd, mode_t m), fd, m)
SPF_SEAM(int, shmget, -1, __THROW, -1, (key_t k, size_t n, int f), k, n, f)
SPF_SEAM(void*, shmat, reinterpret_cast<void*>(-1), __THROW, -1, (int id, const void* a, int f), id, a, f)
SPF_SEAM(int, shmdt, -1, __THROW, -1, (const void* a), a)
SPF_SEAM(int, shmctl, -1, __THROW, c, (int id, int c, struct shmid_ds* s), id, c, s)
SPF_SEAM(int, flock, -1, __THROW, -1, (int fd, int o), fd, o)
SPF_SEAM(int, madvise, -1, __THROW, -1, (void* a, size_t n, int advice), a, n, advice)
int posix_fallocate(int fd, off_t offset, off_t length) {  // answers with the error number, not errno
    static const auto real = reinterpret_cast<decltype(&::posix_fallocate)>(::dlsym(RTLD_NEXT, "posix_fallocate"));
    const int result = spf_test::forward(spf_test::Call::posix_fallocate, real, -1, -1, fd, offset, length);
    return result == -1 ? errno : result;
}
SPF_LOOKUP(getgrgid_r, group, gid_t)
SPF_LOOKUP(getgrnam_r, group, const char*)
SPF_LOOKUP(getpwuid_r, passwd, uid_t)

}
