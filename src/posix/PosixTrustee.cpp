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
    const LookupResult<gid_t> group = lookupGroupId(requested);
    if (group.code != 0) {
        report<std::invalid_argument>(
            [&] {
                abandon();
                return "SystemError:SharedMemory:getgrnam:trustee=" + requested +
                       ":error= " + errorNumber(group.code);
            },
            "setTrustee(): Failed to find the specified group: <", requested, ">. (Error ",
            group.code, ")");
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
        report<std::runtime_error>(
            [&] {
                abandon();
                return "SystemError:SharedMemory:setTrustee:fchown " + requested +
                       ":error=" + errorNumber(errno);
            },
            "setTrustee(): Failed to change the group to: <", requested, ">. (Error ", errno, ")");
    }
    struct stat status;
    if (::fstat(handle, &status) == -1) {
        report<std::runtime_error>(
            [&] {
                abandon();
                return "SystemError:SharedMemory:setTrustee:fstat" + name + ":error=" + errorNumber(errno);
            },
            "setTrustee(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
    }
    if (::fchmod(handle, status.st_mode | S_IRWXG) == -1) {
        report<std::runtime_error>(
            [&] {
                abandon();
                return "SystemError:SharedMemory:setTrustee:fchmod" + trustee + ":error=" + errorNumber(errno);
            },
            "setTrustee(): Failed to change permissions to include the group. (Error ", errno, ")");
    }
    return requested;
}

}  // namespace agent::spf::sharedmemory
