#include "Seam.hpp"

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

namespace spf_test {
namespace {

constexpr int kCalls = static_cast<int>(Call::kCount);

struct Armed {
    std::atomic<bool> active{false};
    std::atomic<int> remainingSkips{0};
    std::atomic<int> error{0};
    std::atomic<bool> performFirst{false};
    std::atomic<int> command{-1};
};

Armed armed[kCalls];
std::atomic<int> counts[kCalls];
std::atomic<std::size_t> rangeBelow{0};
std::atomic<std::size_t> largestBuffer{0};

// Whether this call (of `command`, for shmctl) is the one to fail; consumes the fault.
bool shouldFail(Call call, int command = -1) {
    const int index = static_cast<int>(call);
    counts[index].fetch_add(1, std::memory_order_relaxed);
    Armed& fault = armed[index];
    if (!fault.active.load()) {
        return false;
    }
    if (fault.command.load() != -1 && fault.command.load() != command) {
        return false;
    }
    if (fault.remainingSkips.fetch_sub(1) > 0) {
        return false;
    }
    return fault.active.exchange(false);
}

int errorOf(Call call) { return armed[static_cast<int>(call)].error.load(); }
bool performsFirst(Call call) { return armed[static_cast<int>(call)].performFirst.load(); }

template <typename Function>
Function real(const char* symbol) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, symbol));
}

// Forwards to the real call, or fails it as armed (running it first when asked to).
template <typename Result, typename Function, typename... Args>
Result forward(Call call, Function function, Result failed, int command, Args... args) {
    if (shouldFail(call, command)) {
        const int error = errorOf(call);
        if (performsFirst(call)) {
            function(args...);
        }
        errno = error;
        return failed;
    }
    return function(args...);
}

// The reentrant lookups report through their return value, not errno.
template <typename Function, typename Key, typename Entry>
int forwardLookup(Call call, Function function, Key key, Entry* entry, char* buffer,
                  std::size_t size, Entry** result) {
    std::size_t seen = largestBuffer.load();
    while (size > seen && !largestBuffer.compare_exchange_weak(seen, size)) {
    }
    if (shouldFail(call)) {
        *result = nullptr;
        return errorOf(call);
    }
    if (size < rangeBelow.load()) {
        *result = nullptr;
        return ERANGE;
    }
    return function(key, entry, buffer, size, result);
}

}  // namespace

const char* callName(Call call) {
    static const char* const names[kCalls] = {
        "shm_open", "shm_unlink", "fstat", "ftruncate", "mmap", "munmap", "close", "fchown",
        "fchmod", "flock", "shmget", "shmat", "shmdt", "shmctl", "getgrgid_r", "getgrnam_r",
        "getpwuid_r"};
    return names[static_cast<int>(call)];
}

void arm(const Fault& fault) {
    Armed& slot = armed[static_cast<int>(fault.call)];
    slot.active = false;
    slot.remainingSkips = fault.skip;
    slot.error = fault.error;
    slot.performFirst = fault.performFirst;
    slot.command = fault.shmctlCommand;
    slot.active = true;
}

void disarmAll() {
    for (int i = 0; i < kCalls; ++i) {
        armed[i].active = false;
        counts[i] = 0;
    }
    rangeBelow = 0;
    largestBuffer = 0;
}

int callCount(Call call) { return counts[static_cast<int>(call)].load(); }

void forceRangeErrorsBelow(std::size_t bytes) { rangeBelow = bytes; }
std::size_t largestLookupBuffer() { return largestBuffer.load(); }

}  // namespace spf_test

using spf_test::Call;
using spf_test::forward;

#define SPF_REAL(name) spf_test::real<decltype(&::name)>(#name)

extern "C" {

int shm_open(const char* name, int flags, mode_t mode) {
    static const auto function = SPF_REAL(shm_open);
    return forward(Call::shm_open, function, -1, -1, name, flags, mode);
}

int shm_unlink(const char* name) {
    static const auto function = SPF_REAL(shm_unlink);
    return forward(Call::shm_unlink, function, -1, -1, name);
}

int fstat(int fd, struct stat* status) __THROW {
    static const auto function = SPF_REAL(fstat);
    return forward(Call::fstat, function, -1, -1, fd, status);
}

int ftruncate(int fd, off_t length) __THROW {
    static const auto function = SPF_REAL(ftruncate);
    return forward(Call::ftruncate, function, -1, -1, fd, length);
}

void* mmap(void* address, size_t length, int protection, int flags, int fd, off_t offset) __THROW {
    static const auto function = SPF_REAL(mmap);
    return forward(Call::mmap, function, MAP_FAILED, -1, address, length, protection, flags, fd,
                   offset);
}

int munmap(void* address, size_t length) __THROW {
    static const auto function = SPF_REAL(munmap);
    return forward(Call::munmap, function, -1, -1, address, length);
}

int close(int fd) {
    static const auto function = SPF_REAL(close);
    return forward(Call::close, function, -1, -1, fd);
}

int fchown(int fd, uid_t owner, gid_t group) __THROW {
    static const auto function = SPF_REAL(fchown);
    return forward(Call::fchown, function, -1, -1, fd, owner, group);
}

int fchmod(int fd, mode_t mode) __THROW {
    static const auto function = SPF_REAL(fchmod);
    return forward(Call::fchmod, function, -1, -1, fd, mode);
}

int flock(int fd, int operation) __THROW {
    static const auto function = SPF_REAL(flock);
    return forward(Call::flock, function, -1, -1, fd, operation);
}

int shmget(key_t key, size_t size, int flags) __THROW {
    static const auto function = SPF_REAL(shmget);
    return forward(Call::shmget, function, -1, -1, key, size, flags);
}

void* shmat(int id, const void* address, int flags) __THROW {
    static const auto function = SPF_REAL(shmat);
    return forward(Call::shmat, function, reinterpret_cast<void*>(-1), -1, id, address, flags);
}

int shmdt(const void* address) __THROW {
    static const auto function = SPF_REAL(shmdt);
    return forward(Call::shmdt, function, -1, -1, address);
}

int shmctl(int id, int command, struct shmid_ds* status) __THROW {
    static const auto function = SPF_REAL(shmctl);
    return forward(Call::shmctl, function, -1, command, id, command, status);
}

int getgrgid_r(gid_t gid, struct group* entry, char* buffer, size_t size, struct group** result) {
    static const auto function = SPF_REAL(getgrgid_r);
    return spf_test::forwardLookup(Call::getgrgid_r, function, gid, entry, buffer, size, result);
}

int getgrnam_r(const char* name, struct group* entry, char* buffer, size_t size,
               struct group** result) {
    static const auto function = SPF_REAL(getgrnam_r);
    return spf_test::forwardLookup(Call::getgrnam_r, function, name, entry, buffer, size, result);
}

int getpwuid_r(uid_t uid, struct passwd* entry, char* buffer, size_t size, struct passwd** result) {
    static const auto function = SPF_REAL(getpwuid_r);
    return spf_test::forwardLookup(Call::getpwuid_r, function, uid, entry, buffer, size, result);
}

}  // extern "C"
