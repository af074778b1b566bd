#include "core/Hash.hpp"

#include <cstring>

namespace agent::spf::sharedmemory {
namespace {

constexpr std::uint64_t kMultiplier = 0xc6a4a7935bd1e995ULL;
constexpr std::uint64_t kSeed = 0xc70f6907ULL;
constexpr int kShift = 47;

// Little-endian whatever the host, so that every build names a segment alike.
std::uint64_t loadLittleEndian(const unsigned char* bytes, std::size_t count) noexcept {
    std::uint64_t value = 0;
    for (std::size_t i = count; i-- > 0;) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

std::uint64_t loadBlock(const unsigned char* bytes) noexcept {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
#else
    return loadLittleEndian(bytes, 8);
#endif
}

}  // namespace

std::uint64_t hashBytes(const void* data, std::size_t length) noexcept {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t h = kSeed ^ (static_cast<std::uint64_t>(length) * kMultiplier);
    const std::size_t whole = length & ~static_cast<std::size_t>(7);
    for (std::size_t offset = 0; offset < whole; offset += 8) {
        std::uint64_t k = loadBlock(bytes + offset);
        k *= kMultiplier;
        k ^= k >> kShift;
        k *= kMultiplier;
        h ^= k;
        h *= kMultiplier;
    }
    if ((length & 7) != 0) {
        h ^= loadLittleEndian(bytes + whole, length & 7);
        h *= kMultiplier;
    }
    h ^= h >> kShift;
    h *= kMultiplier;
    h ^= h >> kShift;
    return h;
}

std::string hashToHexString(const std::string& text) {
    if (text.empty()) {
        return std::string();
    }
    std::uint64_t value = hashString(text);
    char digits[16];
    char* const end = digits + sizeof digits;
    char* first = end;
    do {
        *--first = "0123456789abcdef"[value & 0xf];
        value >>= 4;
    } while (value != 0);
    return std::string(first, end);
}

}  // namespace agent::spf::sharedmemory
