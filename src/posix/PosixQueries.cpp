#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

#include "core/Permissions.hpp"
#include "core/Report.hpp"
#include "posix/DatabaseLookup.hpp"
#include "posix/PosixImpl.hpp"

namespace agent::spf::sharedmemory {
namespace {

// Where Linux keeps the POSIX object of `name`, or empty when `name` is no valid object name
// (a "/" past the leading ones, "." or ".."), so that nothing outside the directory is read.
std::string objectPath(const std::string& name) {
    const std::string::size_type start = name.find_first_not_of('/');
    if (start == std::string::npos || name.find('/', start) != std::string::npos) {
        return std::string();
    }
    const std::string base = name.substr(start);
    if (base == "." || base == "..") {
        return std::string();
    }
    return "/dev/shm/" + base;
}

}  // namespace

std::string SharedMemory::PosixImpl::getOwner() const {
    struct stat status;
    if (::fstat(handle, &status) == -1) {
        report<std::runtime_error>(
            [&] { return "SystemError:SharedMemory:getOwner:fstat:" + name + " :error=" + errorNumber(errno); },
            "getOwner(): Failed to stat the segment: <", name, ">. (Error ", errno, ")");
    }
    if (!ownerClassComplete(status.st_mode)) {
        return std::string();
    }
    LookupResult<std::string> user = lookupUserName(status.st_uid);
    if (user.code != 0) {
        report<std::runtime_error>(
            "SystemError:SharedMemory:getOwner:getpwuid " + name + " :error=" + errorNumber(user.code),
            "getOwner(): Failed to get the user struct<", name, ">. (Error ", user.code, ")");
    }
    return std::move(user.item);
}

std::string SharedMemory::PosixImpl::getTrustee() const {
    return trusteeOf(trusteeStatus());
}

struct stat SharedMemory::PosixImpl::trusteeStatus() const {
    struct stat status;
    if (::fstat(handle, &status) == -1) {
        report<std::runtime_error>(
            [&] {
                return "SystemError:SharedMemory:getTrustee:fstat:" + name + "," + trustee +
                       ":error=" + errorNumber(errno);
            },
            "getTrustee(): Failed to stat the segment: <", name, "> for trustee: <", trustee,
            ">. (Error ", errno, ")");
    }
    return status;
}

std::string SharedMemory::PosixImpl::trusteeOf(const struct stat& status) const {
    if (!groupClassComplete(status.st_mode)) {
        return std::string();
    }
    LookupResult<std::string> group = lookupGroupName(status.st_gid);
    if (group.code != 0) {
        report<std::runtime_error>(
            "SystemError:SharedMemory:getTrustee:getgrgid" + name + ":error=" + errorNumber(group.code),
            "getTrustee(): Failed to get the group struct. (Error ", group.code, ")");
    }
    return std::move(group.item);
}

std::string SharedMemory::PosixImpl::describeOpenFailure(int error) const {
    // Nothing is open to ask, so the owner and group come from the object's entry in the
    // directory, which can be read without access to the object; a piece that cannot be
    // learned stays empty rather than replacing this failure with another. Only a regular file
    // is described: a link planted at the name would otherwise describe whatever it points to.
    std::string owner;
    std::string group;
    struct stat status;
    const std::string path = objectPath(name);
    if (!path.empty() && ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        if (ownerClassComplete(status.st_mode)) {
            owner = lookupUserName(status.st_uid).item;
        }
        if (groupClassComplete(status.st_mode)) {
            group = lookupGroupName(status.st_gid).item;
        }
    }
    return "SystemError:SharedMemory:find:shm_open:  name=<" + name + ">, owning group=<" + group +
           ">, owning user=<" + owner + ">, selected group=<" + trustee +
           ">, current username=<" + getCurrentUserName() + ">, error=" + errorNumber(error);
}

}  // namespace agent::spf::sharedmemory
