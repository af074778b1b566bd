// A segment has an owner only while its owner class holds all of rwx, and a trustee only while
// its group class does: the creation mode grants the first, a trustee assignment the second,
// and anyone who takes a bit away revokes that role.
#ifndef SPF_SHAREDMEMORY_CORE_PERMISSIONS_HPP
#define SPF_SHAREDMEMORY_CORE_PERMISSIONS_HPP

#include <sys/stat.h>

namespace agent::spf::sharedmemory {

constexpr bool ownerClassComplete(unsigned mode) noexcept {
    return (mode & S_IRWXU) == S_IRWXU;
}

constexpr bool groupClassComplete(unsigned mode) noexcept {
    return (mode & S_IRWXG) == S_IRWXG;
}

}  // namespace agent::spf::sharedmemory

#endif
