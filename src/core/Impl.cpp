#include "core/Impl.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

#include "core/Report.hpp"

// Linux 5.14 and later; older C library headers lack the name, older kernels refuse the advice.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace agent::spf::sharedmemory {

SharedMemory::Impl::Impl(const std::string& name, unsigned long size)
    : name("/" + name), size(size) {}

SharedMemory::Impl::Impl(const std::string& name, unsigned long size, bool create)
    : creator(create), markedForDeletion(create), name("/" + name), size(size) {}

SharedMemory::Impl::~Impl() = default;

void SharedMemory::Impl::open(int opened, const std::string& requestedTrustee) {
    handle = opened;
    try {
        trustee = setTrustee(requestedTrustee);
        pointer = attach();
    } catch (...) {
        // The failures of setTrustee() and attach() give the segment up themselves; what passes
        // through them (a finder's trustee query, an allocation failure) must not leave a
        // creator's new segment or an open descriptor behind either.
        abandon();
        throw;
    }
}

void SharedMemory::Impl::abandon() noexcept {
    removeAndClose();
}

void SharedMemory::Impl::makePersistent() {
    if (creator) {
        markedForDeletion = false;
        return;
    }
    report<std::runtime_error>(
        "API error: Making shared memory persistent is not available to finder processes",
        "makePersistent(): ", "Cannot be called from a finder object");
}

void SharedMemory::Impl::requireAttached() const {
    if (pointer == nullptr) {
        report<std::runtime_error>(
            "API error: Reserving shared memory is not available to unattached handles",
            "reserve(): Cannot be called on an unattached object: <", name, ">");
    }
}

bool SharedMemory::Impl::populate() const {
    int result;
    while ((result = ::madvise(pointer, size, MADV_POPULATE_WRITE)) == -1 && errno == EINTR) {
    }
    if (result == 0) {
        // The page tables hold every page now, but a hypervisor that shadows them builds its own
        // entry only at the first access to a page, at the cost of an exit per page: one read of
        // each moves that cost here too, and leaves every byte as it is.
        touchEveryPage(false);
        return true;
    }
    if (errno == EINVAL) {
        return false;
    }
    const int error = errno;
    report<std::runtime_error>(
        "SystemError:SharedMemory:reserve:madvise" + name + ":error=" + errorNumber(error),
        "reserve(): Failed to populate the segment: <", name, ">. (Error ", error, ")");
}

void SharedMemory::Impl::touchEveryPage(bool write) const {
    const unsigned long page = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE));
    auto* const bytes = static_cast<volatile char*>(pointer);
    for (unsigned long offset = 0; offset < size; offset += page) {
        if (write) {
            // Adding zero atomically changes no byte, not even one that another process writes
            // at the same moment.
            __atomic_fetch_add(bytes + offset, 0, __ATOMIC_RELAXED);
        } else {
            (void)bytes[offset];
        }
    }
}

bool SharedMemory::Impl::tryCreateOrFind(int& handle) {
    handle = create();
    if (handle != -1) {
        creator = markedForDeletion = true;
        return true;
    }
    handle = find();
    if (handle != -1) {
        creator = markedForDeletion = false;
        return true;
    }
    return false;
}

int SharedMemory::Impl::createOrFind() {
    int opened = -1;
    for (int round = 0; round < kMaxEmptyRounds; ++round) {
        if (tryCreateOrFind(opened)) {
            return opened;
        }
    }
    const int error = errno;
    report<std::runtime_error>(
        "SystemError:SharedMemory:createOrFind:" + name +
            ":the segment could be neither created nor found after " +
            std::to_string(kMaxEmptyRounds) + " attempts:error=" + errorNumber(error),
        "createOrFind(): Could neither create nor find the segment: <", name, "> after ",
        kMaxEmptyRounds, " attempts. (Error ", error, ")");
}

void SharedMemory::Impl::destruct() noexcept {
    detach();
    removeAndClose();
}

}  // namespace agent::spf::sharedmemory
