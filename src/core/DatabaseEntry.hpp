// Reentrant user and group lookups with a buffer that grows until the entry fits. They report
// through a code instead of throwing, so that each caller words its own failure.
#ifndef SPF_SHAREDMEMORY_CORE_DATABASEENTRY_HPP
#define SPF_SHAREDMEMORY_CORE_DATABASEENTRY_HPP

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <limits>
#include <utility>
#include <vector>

namespace agent::spf::sharedmemory {

// code: 0 found; -1 no such entry; -2 the buffer could not grow further; otherwise the error
// number the reentrant call returned.
template <typename Item>
struct LookupResult {
    Item item{};
    int code = 0;
};

// One loop for every lookup: they differ only in the call, the key, the size hint and the item
// taken from the entry.
template <typename Entry, typename Key, typename Call, typename Take>
auto lookupDatabaseEntry(int sizeHint, const Key& key, Call call, Take take)
    -> LookupResult<decltype(take(std::declval<const Entry&>()))> {
    constexpr std::size_t kMinimumBuffer = 2048;
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

}  // namespace agent::spf::sharedmemory

#endif
