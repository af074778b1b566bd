#include "core/Impl.hpp"

#include <stdexcept>

#include "core/Report.hpp"

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
