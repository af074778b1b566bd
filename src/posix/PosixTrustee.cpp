#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "core/Report.hpp"
#include "core/Trust.hpp"
#include "posix/DatabaseLookup.hpp"
#include "posix/PosixImpl.hpp"

namespace agent::spf::sharedmemory {

std::string SharedMemory::PosixImpl::setTrustee(const std::string& requested) {
    if (handle == -1) {
        return std::string();
    }
    if (requested.empty()) {
        return creator ? std::string() : acceptFound(requested, nullptr);
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
        return acceptFound(requested, &group.item);
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

// A finder quietly gives up a segment that trusts another group than the one it asked for, and
// refuses one whose controllers it may not trust, before anything sizes or maps it; the one
// status read serves the trustee query and the trust check.
std::string SharedMemory::PosixImpl::acceptFound(const std::string& requested, const gid_t* requestedGroup) {
    const struct stat status = trusteeStatus();
    if (requestedGroup != nullptr && trusteeOf(status) != requested) {
        abandon();
        return std::string();
    }
    requireTrust(*this, {{status.st_uid}, 1, status.st_gid, status.st_mode, S_ISREG(status.st_mode)},
                 requestedGroup);
    return requestedGroup != nullptr ? requested : trusteeOf(status);
}

}  // namespace agent::spf::sharedmemory
