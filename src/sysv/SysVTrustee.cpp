#include <grp.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "core/Report.hpp"
#include "core/Trust.hpp"
#include "sysv/SysVImpl.hpp"

namespace agent::spf::sharedmemory {

std::string SharedMemory::SysVImpl::setTrustee(const std::string& requested) {
    if (handle == -1) {
        return std::string();
    }
    if (requested.empty()) {
        return creator ? std::string() : acceptFound(requested, nullptr);
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
        return acceptFound(requested, &gid);
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

// A finder quietly gives up a segment that trusts another group than the one it asked for, and
// refuses one whose controllers it may not trust, before it attaches; the one status read
// serves the trustee query and the trust check. The creator's uid counts as a controller
// because IPC_SET lets it stamp any owner and group on the segment.
std::string SharedMemory::SysVImpl::acceptFound(const std::string& requested, const gid_t* requestedGroup) {
    const shmid_ds status = trusteeStatus();
    if (requestedGroup != nullptr && trusteeOf(status) != requested) {
        removeAndClose();
        return std::string();
    }
    requireTrust(*this, {{status.shm_perm.uid, status.shm_perm.cuid}, 2, status.shm_perm.gid,
                         status.shm_perm.mode & 0777u, true},
                 requestedGroup);
    return requestedGroup != nullptr ? requested : trusteeOf(status);
}

}  // namespace agent::spf::sharedmemory
