#include "sysv/SysVImpl.hpp"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include "core/Hash.hpp"
#include "core/Report.hpp"

namespace agent::spf::sharedmemory {

key_t segmentKey(const std::string& name) noexcept {
    // The low 32 bits of the name hash, as they are. A name whose bits come out as 0 yields
    // IPC_PRIVATE, and with it a new private segment on every shmget, find() included: a
    // remapped key would no longer be the one every other process derives, so it stays.
    return static_cast<key_t>(static_cast<std::uint32_t>(hashString(name)));
}

SharedMemory::SysVImpl::SysVImpl(const std::string& name, unsigned long size,
                                 const std::string& trustee)
    : Impl(name, size) {
    open(createOrFind(), trustee);
}

SharedMemory::SysVImpl::SysVImpl(const std::string& name, unsigned long size, bool create,
                                 const std::string& trustee)
    : Impl(name, size, create) {
    open(create ? this->create() : find(), trustee);
}

SharedMemory::SysVImpl::~SysVImpl() { destruct(); }

int SharedMemory::SysVImpl::create() {
    const int id = ::shmget(segmentKey(name), size, IPC_CREAT | IPC_EXCL | S_IRWXU);
    if (id != -1) {
        return id;
    }
    if (errno == EEXIST || errno == EINVAL) {
        return -1;
    }
    const int error = errno;
    report<std::runtime_error>(
        "SystemError:SharedMemory:create:shmget" + name + ":error=" + errorNumber(error),
        "create(): Failed to create the segment: <", name, ">. (Error ", error, ")");
}

int SharedMemory::SysVImpl::find() {
    const int id = ::shmget(segmentKey(name), size, S_IRWXU);
    if (id != -1) {
        return id;
    }
    if (errno == ENOENT) {
        return -1;
    }
    const int error = errno;
    report<std::runtime_error>([&] { return describeOpenFailure(error); },
                               "find(): Failed to open the existing segment: <", name,
                               ">. (Error ", error, ")");
}

void* SharedMemory::SysVImpl::attach() {
    if (handle == -1) {
        return nullptr;
    }
    void* address = ::shmat(handle, nullptr, 0);
    if (address != reinterpret_cast<void*>(-1)) {
        return address;
    }
    writeRecord("attach(): Failed to attach the segment: <", name, ">. (Error ", errno, ")");
    removeAndClose();
    throw std::runtime_error("SystemError:SharedMemory:attach:shmat" + name +
                             ":error=" + errorNumber(errno));
}

void SharedMemory::SysVImpl::detach() {
    if (pointer != nullptr && ::shmdt(pointer) == -1) {
        writeRecord("detach(): Failed to detach the segment: <", name, ">. (Error ", errno, ")");
    }
    pointer = nullptr;
}

void SharedMemory::SysVImpl::removeAndClose() {
    if (markedForDeletion && handle != -1 && ::shmctl(handle, IPC_RMID, nullptr) == -1) {
        writeRecord("removeAndClose(): Failed to remove/unlink the segment: <", name, ">. (Error ",
                    errno, ")");
    }
    handle = -1;
}

}  // namespace agent::spf::sharedmemory
