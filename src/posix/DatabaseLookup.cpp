#include "posix/DatabaseLookup.hpp"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <vector>

namespace agent::spf::sharedmemory {
namespace {

constexpr std::size_t kMinimumBuffer = 2048;

// One loop for the three lookups: they differ only in the call, the key, the size hint and the
// item taken from the entry.
template <typename Entry, typename Key, typename Call, typename Take>
auto lookupDatabaseEntry(int sizeHint, const Key& key, Call call, Take take)
    -> LookupResult<decltype(take(std::declval<const Entry&>()))> {
    const long suggested = ::sysconf(sizeHint);
    std::size_t size = suggested > static_cast<long>(kMinimumBuffer)
                           ? static_cast<std::size_t>(suggested)
                           : kMinimumBuffer;
    std::vector<char> buffer(size);
    Entry entry{};
    Entry* result = nullptr;
    int status;
    while ((status = call(key, &entry, buffer.data(), buffer.size(), &result)) == ERANGE) {
        if (buffer.size() > std::numeric_limits<std::size_t>::max() / 2) {
            return {{}, -2};
        }
        buffer.resize(buffer.size() * 2);
    }
    if (status != 0) {
        return {{}, status};
    }
    if (result == nullptr) {
        return {{}, -1};
    }
    return {take(entry), 0};
}

}  // namespace

LookupResult<std::string> lookupUserName(uid_t uid) {
    return lookupDatabaseEntry<passwd>(_SC_GETPW_R_SIZE_MAX, uid, ::getpwuid_r,
                                       [](const passwd& entry) { return std::string(entry.pw_name); });
}

LookupResult<std::string> lookupGroupName(gid_t gid) {
    return lookupDatabaseEntry<group>(_SC_GETGR_R_SIZE_MAX, gid, ::getgrgid_r,
                                      [](const group& entry) { return std::string(entry.gr_name); });
}

LookupResult<gid_t> lookupGroupId(const std::string& name) {
    return lookupDatabaseEntry<group>(_SC_GETGR_R_SIZE_MAX, name.c_str(), ::getgrnam_r,
                                      [](const group& entry) { return entry.gr_gid; });
}

}  // namespace agent::spf::sharedmemory
