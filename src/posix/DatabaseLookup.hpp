// Reentrant user and group lookups with a buffer that grows until the entry fits. They report
// through a code instead of throwing, so that each caller words its own failure.
#ifndef SPF_SHAREDMEMORY_POSIX_DATABASELOOKUP_HPP
#define SPF_SHAREDMEMORY_POSIX_DATABASELOOKUP_HPP

#include <sys/types.h>

#include <string>

namespace agent::spf::sharedmemory {

// code: 0 found; -1 no such entry; -2 the buffer could not grow further; otherwise the error
// number the reentrant call returned.
template <typename Item>
struct LookupResult {
    Item item{};
    int code = 0;
};

LookupResult<std::string> lookupUserName(uid_t uid);
LookupResult<std::string> lookupGroupName(gid_t gid);
LookupResult<gid_t> lookupGroupId(const std::string& group);

}  // namespace agent::spf::sharedmemory

#endif
