// System-wide segment names: every process that shares a segment derives the same name, so the
// hash is fixed here step by step rather than borrowed from whatever the standard library uses.
#ifndef SPF_SHAREDMEMORY_HANDLE_SEGMENTNAME_HPP
#define SPF_SHAREDMEMORY_HANDLE_SEGMENTNAME_HPP

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace agent::spf::sharedmemory {

// MurmurHash64A with seed 0xc70f6907 over `length` bytes at `data`.
std::uint64_t hashBytes(const void* data, std::size_t length) noexcept;

inline std::uint64_t hashString(const std::string& text) noexcept {
    return hashBytes(text.data(), text.size());
}

// The hash of `text` in lowercase hexadecimal without leading zeros; empty for an empty text.
std::string hashToHexString(const std::string& text);

// deriveSegmentName() (public) hashes trustee + name + "t", or, with an empty trustee,
// getCurrentUserName() + name + "u".

}  // namespace agent::spf::sharedmemory

#endif
