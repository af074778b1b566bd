// Segment names and System V keys must come out identical in every process and build that shares
// a segment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <random>

#include "Support.hpp"
#include "core/Hash.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

// The values every implementation reproduces: the hashed text, its name, and the parts (name,
// trustee, effective user id; -1 for none) a derivation joins into that text.
struct NameRow { const char *text, *derived, *name, *trustee; int euid; };
const NameRow kTable[] = {
    {"grpsegt", "a758e1b41c007852", "seg", "grp", -1},
    {"staffbuffert", "7632a976b2830bcc", "buffer", "staff", -1},
    {"grpt", "baf832990df50c4", "", "grp", -1},
    {"t", "b892a70c866feca", nullptr, nullptr, -1},
    {"euid: 0segu", "4741f9263967e2b6", "seg", "", 0},
    {"euid: 1000segu", "7614e6f79217d782", "seg", "", 1000},
    {"euid: 1000seg1u", "629839cd06d03bc", "seg1", "", 1000},
};

TEST(Naming, NamesDeriveFromTrusteeOrEffectiveUserExactlyAsTheTableSays) {
    EXPECT_EQ(sm::hashToHexString(""), "");
    for (const NameRow& row : kTable) EXPECT_EQ(sm::hashToHexString(row.text), row.derived) << row.text;
    // Nothing separates the pieces: these two hash the same text.
    EXPECT_EQ(sm::deriveSegmentName("cd", "ab"), sm::deriveSegmentName("d", "abc"));
    if (!spf_test::isRoot()) GTEST_SKIP() << "needs root to take on effective users 0 and 1000";
    for (const NameRow& row : kTable) {
        if (row.name == nullptr) continue;
        // A child whose real user stays root: the name follows the effective one.
        EXPECT_EQ(spf_test::runInChild([&] {
            if (row.euid > 0 && ::seteuid(row.euid) != 0) return 90;
            if (sm::getCurrentUserName() != "euid: " + std::to_string(row.euid < 0 ? 0 : row.euid)) return 1;
            return sm::deriveSegmentName(row.name, row.trustee) == row.derived ? 0 : 2;
        }), 0) << row.text;
    }
}

// The hash is the one g++'s standard library uses for strings; any drift would split processes
// built differently onto different segments.
TEST(Naming, HashAndSystemVKeyAgreeWithTheStandardLibraryOnRandomBytes) {
    std::mt19937_64 random(20261123);
    for (std::size_t length = 0; length <= 64; ++length) {
        for (int sample = 0; sample < 200; ++sample) {
            std::string text(length, '\0');
            for (char& c : text) c = static_cast<char>(random());
            const std::size_t expected = std::hash<std::string>{}(text);
            ASSERT_EQ(sm::hashString(text), expected) << "length " << length;
            // The key is the low 32 bits of the hash of the whole name, its "/" included.
            ASSERT_EQ(sm::deriveSystemVKey(text), static_cast<std::int32_t>(std::hash<std::string>{}("/" + text)));
        }
    }
}

}  // namespace
