// The string hash that names segments and keys System V segments. Every process that shares a
// segment must compute the same value, so the hash is fixed here step by step rather than
// borrowed from whatever the standard library of a build happens to use.
#ifndef SPF_SHAREDMEMORY_CORE_HASH_HPP
#define SPF_SHAREDMEMORY_CORE_HASH_HPP

#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::spf::sharedmemory {

// MurmurHash64A with seed 0xc70f6907 over `length` bytes at `data`.
std::uint64_t hashBytes(const void* data, std::size_t length) noexcept;

inline std::uint64_t hashString(const std::string& text) noexcept {
    return hashBytes(text.data(), text.size());
}

// The hash of `text` in lowercase hexadecimal without leading zeros; empty for an empty text.
std::string hashToHexString(const std::string& text);

}  // namespace agent::spf::sharedmemory

#endif
