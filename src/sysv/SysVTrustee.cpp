#include <grp.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "core/Report.hpp"
#include "sysv/SysVImpl.hpp"

namespace agent::spf::sharedmemory {

std::string SharedMemory::SysVImpl::setTrustee(const std::string& requested) {
    if (handle == -1) {
        return std::string();
    }
    if (requested.empty()) {
        return creator ? std::string() : getTrustee();
    }
    // Each failure below writes its record, gives the segment up, and only then builds its
    // text, whose number is read after the clean-up.
    errno = 0;
    const group* entry = ::getgrnam(requested.c_str());
    if (entry == nullptr) {
        writeRecord("setTrustee(): Failed to find the specified group: <", requested, ">. (Error ",
                    errno, ")");
        removeAndClose();
        throw std::invalid_argument("SystemError:SharedMemory:getgrnam:trustee=" + requested +
                                    ":error= " + errorNumber(errno));
    }
    const gid_t gid = entry->gr_gid;
    if (!creator) {
        if (getTrustee() == requested) {
            return requested;
        }
        removeAndClose();
        return std::string();
    }
    shmid_ds status;
    if (::shmctl(handle, IPC_STAT, &status) == -1) {
        writeRecord("setTrustee(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
        removeAndClose();
        throw std::runtime_error("SystemError:SharedMemory:setTrustee:shmctl(IPC_STAT)" + name +
                                 ":error=" + errorNumber(errno));
    }
    status.shm_perm.gid = gid;
    status.shm_perm.mode |= S_IRWXG;
    if (::shmctl(handle, IPC_SET, &status) == -1) {
        writeRecord("setTrustee(): Failed to set the new permissions: <", name, ">. (Error ",
                    errno, ")");
        removeAndClose();
        throw std::runtime_error("SystemError:SharedMemory:setTrustee:shmctl(IPC_SET)" + name +
                                 ":error=" + errorNumber(errno));
    }
    return requested;
}

}  // namespace agent::spf::sharedmemory
