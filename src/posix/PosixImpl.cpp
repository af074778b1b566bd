#include "posix/PosixImpl.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <stdexcept>

#include "core/Report.hpp"

namespace agent::spf::sharedmemory {

SharedMemory::PosixImpl::PosixImpl(const std::string& name, unsigned long size,
                                   const std::string& trustee)
    : Impl(name, size) {
    open(createOrFind(), trustee);
}

SharedMemory::PosixImpl::PosixImpl(const std::string& name, unsigned long size, bool create,
                                   const std::string& trustee)
    : Impl(name, size, create) {
    open(create ? this->create() : find(), trustee);
}

SharedMemory::PosixImpl::~PosixImpl() { destruct(); }

int SharedMemory::PosixImpl::create() {
    const int descriptor = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, S_IRWXU);
    if (descriptor != -1) {
        return descriptor;
    }
    if (errno == EEXIST) {
        return -1;
    }
    const int error = errno;
    report<std::runtime_error>(
        "SystemError:SharedMemory:create:shm_open:  name=<" + name + ">, trustee=<" + trustee +
            ">, error=" + errorNumber(error),
        "create(): Failed to create the segment: <", name, ">. (Error ", error, ")");
}

int SharedMemory::PosixImpl::find() {
    const int descriptor = ::shm_open(name.c_str(), O_RDWR, S_IRWXU);
    if (descriptor != -1) {
        return descriptor;
    }
    if (errno == ENOENT) {
        return -1;
    }
    const int error = errno;
    report<std::runtime_error>([&] { return describeOpenFailure(error); },
                               "find(): Failed to open the existing segment: <", name,
                               "> with trustee <", trustee, ">. (Error ", error, ")");
}

void* SharedMemory::PosixImpl::attach() {
    if (handle == -1) {
        return nullptr;
    }
    // A creator's object is all but certainly still empty: a look at its size before the lock
    // would only be repeated under it, so a creator looks only under the lock.
    if (creator || !isTruncated()) {
        sizeEmptyObject();
    }
    void* address = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, handle, 0);
    if (address != MAP_FAILED) {
        return address;
    }
    abandon();
    report<std::runtime_error>(
        [&] { return "SystemError:SharedMemory:attach:mmap" + name + ":error=" + errorNumber(errno); },
        "attach(): Failed to map the segment: <", name, ">. (Error ", errno, ")");
}

void SharedMemory::PosixImpl::sizeEmptyObject() {
    // The size check and the ftruncate must be one step among processes: otherwise a process
    // that saw the object empty can shrink it under another that has sized and mapped it since.
    // The lock belongs to this open file description, so closing the descriptor on a failure
    // path releases it. If it cannot be taken, sizing goes on unserialised as it would without.
    const int savedErrno = errno;
    const bool locked = lockForSizing();
    errno = savedErrno;

    if (isTruncated() || (::ftruncate(handle, static_cast<off_t>(size)) == 0 && isTruncated())) {
        if (locked) {
            ::flock(handle, LOCK_UN);
        }
        return;
    }
    abandon();
    report<std::runtime_error>(
        [&] { return "SystemError:SharedMemory:attach:ftruncate" + name + ":error=" + errorNumber(errno); },
        "attach(): Failed to truncate the segment: <", name, ">. (Error ", errno, ")");
}

bool SharedMemory::PosixImpl::lockForSizing() const {
    // Sizing takes microseconds, so a holder that keeps the lock for long is stuck or hostile,
    // and must not stall this process beyond about a second. The lock is polled rather than
    // waited for with a timer: no signal or thread of the library's may disturb the caller. The
    // pauses start short, for the usual holder that is about to let go, and grow to 10 ms. The
    // clock is read only once the lock is found taken.
    using Clock = std::chrono::steady_clock;
    constexpr auto kPatience = std::chrono::seconds(1);
    constexpr long kLongestPause = 10'000'000;
    timespec pause = {0, 100'000};
    for (Clock::time_point deadline = Clock::time_point::max(); ::flock(handle, LOCK_EX | LOCK_NB) != 0;) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
        const Clock::time_point now = Clock::now();
        if (deadline == Clock::time_point::max()) {
            deadline = now + kPatience;
        } else if (now >= deadline) {
            return false;
        }
        ::nanosleep(&pause, nullptr);
        pause.tv_nsec = std::min(pause.tv_nsec * 2, kLongestPause);
    }
    return true;
}

bool SharedMemory::PosixImpl::isTruncated() {
    struct stat status;
    if (::fstat(handle, &status) == -1) {
        abandon();
        report<std::runtime_error>(
            [&] { return "SystemError:SharedMemory:attach:fstat" + name + ":error=" + errorNumber(errno); },
            "isTruncated(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
    }
    if (status.st_size == 0) {
        return false;
    }
    if (static_cast<std::uint64_t>(status.st_size) >= static_cast<std::uint64_t>(size)) {
        return true;
    }
    abandon();
    report<std::runtime_error>(
        [&] { return "SystemError:SharedMemory:attach:st_size" + name + ":error=" + errorNumber(errno); },
        "isTruncated(): Inconsistent shared memory size: <", name, ">. (Error", errno, ")");
}

void SharedMemory::PosixImpl::detach() {
    if (pointer != nullptr && ::munmap(pointer, size) == -1) {
        writeRecord("detach(): Failed to unmap/munmap the segment: <", name, ">. (Error ", errno, ")");
    }
    pointer = nullptr;
    // The number stays in `handle` so that removeAndClose() still knows a segment was held.
    if (handle != -1 && ::close(handle) == -1) {
        writeRecord("detach(): Failed to detach/close the segment: <", name, ">. (Error ", errno, ")");
    }
}

void SharedMemory::PosixImpl::removeAndClose() {
    if (markedForDeletion && handle != -1 && ::shm_unlink(name.c_str()) == -1) {
        writeRecord("removeAndClose(): Failed to remove/unlink the segment: <", name, ">. (Error ",
                    errno, ")");
    }
    handle = -1;
}

void SharedMemory::PosixImpl::abandon() noexcept {
    const int descriptor = handle;
    removeAndClose();
    if (descriptor != -1) {
        const int savedErrno = errno;
        ::close(descriptor);
        errno = savedErrno;
    }
}

}  // namespace agent::spf::sharedmemory
