// Arbitrary bytes through the name derivation. Every process that shares a segment derives its
// name independently, so the hash must stay the standard library's string hash byte for byte,
// and every derived name must keep the form other processes and tools expect. The first byte of
// the input picks where the rest splits into trustee and name.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "handle/SegmentName.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

void require(bool holds, const char* what, const std::string& input) {
    if (!holds) std::fprintf(stderr, "%s (input of %zu bytes)\n", what, input.size()), std::abort();
}

// 1 to 16 lowercase hexadecimal digits without a leading zero.
bool wellFormed(const std::string& name) {
    return !name.empty() && name.size() <= 16 && name[0] != '0' &&
           name.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::uint64_t hash = sm::hashString(text);
    require(hash == std::hash<std::string>{}(text), "hashString differs from std::hash<std::string>", text);

    const std::string hex = sm::hashToHexString(text);
    if (text.empty()) {
        require(hex.empty(), "the empty text must give an empty name", text);
    } else {
        require(wellFormed(hex), "hashToHexString is not 1-16 lowercase digits without a leading zero", text);
        require(std::strtoull(hex.c_str(), nullptr, 16) == hash, "hashToHexString does not read back as the hash", text);
    }

    if (size == 0) {
        return 0;
    }
    const std::string rest = text.substr(1);
    const std::size_t cut = data[0] % (rest.size() + 1);
    const std::string trustee = rest.substr(0, cut);
    const std::string name = rest.substr(cut);
    const std::string derived = sm::deriveSegmentName(name, trustee);
    require(wellFormed(derived), "derived name is not 1-16 lowercase digits without a leading zero", text);
    const std::string expected = trustee.empty()
                                     ? sm::hashToHexString(sm::getCurrentUserName() + name + "u")
                                     : sm::hashToHexString(trustee + name + "t");
    require(derived == expected, "derived name is not the hash of trustee + name + suffix", text);
    return 0;
}
