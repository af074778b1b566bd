#include "handle/SegmentName.hpp"

#include <unistd.h>

#include <charconv>
#include <cstring>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace agent::spf::sharedmemory {
namespace {

constexpr std::uint64_t kMultiplier = 0xc6a4a7935bd1e995ULL;
constexpr std::uint64_t kSeed = 0xc70f6907ULL;
constexpr int kShift = 47;

// Little-endian load regardless of alignment; the names must hash alike on every build.
inline std::uint64_t loadLittleEndian(const unsigned char* bytes, std::size_t count) noexcept {
    std::uint64_t value = 0;
    for (std::size_t i = count; i-- > 0;) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

inline std::uint64_t loadBlock(const unsigned char* bytes) noexcept {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
#else
    return loadLittleEndian(bytes, 8);
#endif
}

inline std::uint64_t initialState(std::size_t length) noexcept {
    return kSeed ^ (static_cast<std::uint64_t>(length) * kMultiplier);
}

inline void mixBlock(std::uint64_t& h, std::uint64_t k) noexcept {
    k *= kMultiplier;
    k ^= k >> kShift;
    k *= kMultiplier;
    h ^= k;
    h *= kMultiplier;
}

inline std::uint64_t finalState(std::uint64_t h, const unsigned char* rest,
                                std::size_t count) noexcept {
    if (count != 0) {
        h ^= loadLittleEndian(rest, count);
        h *= kMultiplier;
    }
    h ^= h >> kShift;
    h *= kMultiplier;
    h ^= h >> kShift;
    return h;
}

// The hash of a text that exists only as pieces: the same value as hashBytes() over the pieces
// joined, without a joined copy (for a long name, a string as long as the name).
class PieceHash {
public:
    explicit PieceHash(std::size_t totalLength) noexcept : h_(initialState(totalLength)) {}

    void add(const char* data, std::size_t length) noexcept {
        const auto* bytes = reinterpret_cast<const unsigned char*>(data);
        if (pending_ != 0) {
            const std::size_t taken = length < 8 - pending_ ? length : 8 - pending_;
            std::memcpy(block_ + pending_, bytes, taken);
            pending_ += taken;
            bytes += taken;
            length -= taken;
            if (pending_ < 8) {
                return;
            }
            mixBlock(h_, loadBlock(block_));
            pending_ = 0;
        }
        const std::size_t whole = length & ~static_cast<std::size_t>(7);
        for (std::size_t offset = 0; offset < whole; offset += 8) {
            mixBlock(h_, loadBlock(bytes + offset));
        }
        pending_ = length - whole;
        if (pending_ != 0) {
            std::memcpy(block_, bytes + whole, pending_);
        }
    }

    std::uint64_t finish() const noexcept { return finalState(h_, block_, pending_); }

private:
    std::uint64_t h_;
    unsigned char block_[8] = {};
    std::size_t pending_ = 0;
};

std::string toHexString(std::uint64_t value) {
    char digits[16];
    char* end = digits + sizeof digits;
    char* first = end;
    do {
        *--first = "0123456789abcdef"[value & 0xf];
        value >>= 4;
    } while (value != 0);
    return std::string(first, end);
}

// getCurrentUserName() into `text`, without a string of its own; returns its length.
std::size_t writeCurrentUserName(char (&text)[32]) noexcept {
    constexpr char kPrefix[] = "euid: ";
    std::memcpy(text, kPrefix, sizeof kPrefix - 1);
    // An unsigned id of at most 20 digits always fits behind the prefix.
    const std::to_chars_result written =
        std::to_chars(text + sizeof kPrefix - 1, text + sizeof text, ::geteuid());
    return static_cast<std::size_t>(written.ptr - text);
}

}  // namespace

std::uint64_t hashBytes(const void* data, std::size_t length) noexcept {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t h = initialState(length);
    const std::size_t whole = length & ~static_cast<std::size_t>(7);
    for (std::size_t offset = 0; offset < whole; offset += 8) {
        mixBlock(h, loadBlock(bytes + offset));
    }
    return finalState(h, bytes + whole, length & 7);
}

std::string hashToHexString(const std::string& text) {
    if (text.empty()) {
        return std::string();
    }
    return toHexString(hashString(text));
}

std::string deriveSegmentName(const std::string& name, const std::string& trustee) {
    if (!trustee.empty()) {
        PieceHash hash(trustee.size() + name.size() + 1);
        hash.add(trustee.data(), trustee.size());
        hash.add(name.data(), name.size());
        hash.add("t", 1);
        return toHexString(hash.finish());
    }
    char user[32];
    const std::size_t userLength = writeCurrentUserName(user);
    PieceHash hash(userLength + name.size() + 1);
    hash.add(user, userLength);
    hash.add(name.data(), name.size());
    hash.add("u", 1);
    return toHexString(hash.finish());
}

std::string getCurrentUserName() {
    char user[32];
    return std::string(user, writeCurrentUserName(user));
}

}  // namespace agent::spf::sharedmemory
