#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "core/Report.hpp"
#include "posix/DatabaseLookup.hpp"
#include "posix/PosixImpl.hpp"

namespace agent::spf::sharedmemory {

std::string SharedMemory::PosixImpl::setTrustee(const std::string& requested) {
    if (handle == -1) {
        return std::string();
    }
    if (requested.empty()) {
        return creator ? std::string() : getTrustee();
    }
    // Finders look the group up too: a name that is no group is a caller's error either way.
    // Each failure below writes its record, gives the object up, and only then builds its
    // text, whose number is read after the clean-up.
    const LookupResult<gid_t> group = lookupGroupId(requested);
    if (group.code != 0) {
        writeRecord("setTrustee(): Failed to find the specified group: <", requested, ">. (Error ",
                    group.code, ")");
        abandon();
        throw std::invalid_argument("SystemError:SharedMemory:getgrnam:trustee=" + requested +
                                    ":error= " + errorNumber(group.code));
    }
    if (!creator) {
        if (getTrustee() == requested) {
            return requested;
        }
        abandon();
        return std::string();
    }
    // The group changes before the group class gains any permission, so at no moment does the
    // old group have access.
    if (::fchown(handle, ::getuid(), group.item) == -1) {
        writeRecord("setTrustee(): Failed to change the group to: <", requested, ">. (Error ",
                    errno, ")");
        abandon();
        throw std::runtime_error("SystemError:SharedMemory:setTrustee:fchown " + requested +
                                 ":error=" + errorNumber(errno));
    }
    struct stat status;
    if (::fstat(handle, &status) == -1) {
        writeRecord("setTrustee(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
        abandon();
        throw std::runtime_error("SystemError:SharedMemory:setTrustee:fstat" + name +
                                 ":error=" + errorNumber(errno));
    }
    if (::fchmod(handle, status.st_mode | S_IRWXG) == -1) {
        writeRecord("setTrustee(): Failed to change permissions to include the group. (Error ",
                    errno, ")");
        abandon();
        throw std::runtime_error("SystemError:SharedMemory:setTrustee:fchmod" + trustee +
                                 ":error=" + errorNumber(errno));
    }
    return requested;
}

}  // namespace agent::spf::sharedmemory
