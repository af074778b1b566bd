// Segment names must come out identical in every process and build that shares a segment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>

#include "Processes.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "core/Hash.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

struct NameRow {
    const char* text;
    const char* derived;
};

// The values every implementation reproduces, hashed text and all.
const NameRow kTable[] = {
    {"grpsegt", "a758e1b41c007852"},      {"euid: 1000segu", "7614e6f79217d782"},
    {"euid: 0segu", "4741f9263967e2b6"},  {"staffbuffert", "7632a976b2830bcc"},
    {"grpt", "baf832990df50c4"},          {"euid: 1000seg1u", "629839cd06d03bc"},
    {"t", "b892a70c866feca"},
};

TEST(Naming, HashOfKnownTextsMatchesTheTableByteForByte) {
    for (const NameRow& row : kTable) {
        EXPECT_EQ(sm::hashToHexString(row.text), row.derived) << row.text;
    }
    EXPECT_EQ(sm::hashToHexString(""), "");
}

TEST(Naming, DerivedNamesWithATrusteeIgnoreTheUser) {
    EXPECT_EQ(sm::deriveSegmentName("seg", "grp"), "a758e1b41c007852");
    EXPECT_EQ(sm::deriveSegmentName("buffer", "staff"), "7632a976b2830bcc");
    EXPECT_EQ(sm::deriveSegmentName("", "grp"), "baf832990df50c4");
    // Nothing separates the pieces: these two hash the same text.
    EXPECT_EQ(sm::deriveSegmentName("cd", "ab"), sm::deriveSegmentName("d", "abc"));
}

TEST(Naming, DerivedNamesWithoutTrusteeDependOnTheEffectiveUser) {
    if (!spf_test::isRoot()) {
        GTEST_SKIP() << "needs root to take on effective users 0 and 1000";
    }
    EXPECT_EQ(sm::getCurrentUserName(), "euid: 0");
    EXPECT_EQ(sm::deriveSegmentName("seg", ""), "4741f9263967e2b6");
    const int code = spf_test::runInChild([] {
        if (::seteuid(1000) != 0) return 90;
        if (sm::getCurrentUserName() != "euid: 1000") return 1;
        if (sm::deriveSegmentName("seg", "") != "7614e6f79217d782") return 2;
        if (sm::deriveSegmentName("seg1", "") != "629839cd06d03bc") return 3;
        // A trustee that reads like a user name still hashes apart from that user's own name.
        if (sm::deriveSegmentName("seg", "euid: 1000") == "7614e6f79217d782") return 4;
        return 0;
    });
    EXPECT_EQ(code, 0);
}

TEST(Naming, CurrentUserNameIsTheEffectiveNotTheRealUser) {
    if (!spf_test::isRoot()) {
        GTEST_SKIP() << "needs root to split real and effective user";
    }
    const int code = spf_test::runInChild([] {
        if (::setresuid(0, 65534, 0) != 0) return 90;
        return sm::getCurrentUserName() == "euid: 65534" ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

// The hash is the one g++'s standard library uses for strings; any drift would split processes
// built differently onto different segments.
TEST(Naming, HashAgreesWithTheStandardLibraryOnRandomBytes) {
    std::mt19937_64 random(20261123);
    std::uniform_int_distribution<int> byte(0, 255);
    for (std::size_t length = 0; length <= 64; ++length) {
        for (int sample = 0; sample < 200; ++sample) {
            std::string text(length, '\0');
            for (char& c : text) c = static_cast<char>(byte(random));
            ASSERT_EQ(sm::hashString(text), std::hash<std::string>{}(text)) << "length " << length;
        }
    }
}

TEST(Naming, DerivedNamesAreShortLowercaseHexWhateverTheInput) {
    const std::string inputs[] = {std::string("a/b/c"), std::string("\0\xff\x80", 3),
                                  std::string(5000, 'x'), std::string()};
    for (const std::string& name : inputs) {
        for (const std::string& trustee : {std::string(), std::string("staff")}) {
            const std::string derived = sm::deriveSegmentName(name, trustee);
            EXPECT_FALSE(derived.empty());
            EXPECT_LE(derived.size(), 16u);
            EXPECT_EQ(derived.find_first_not_of("0123456789abcdef"), std::string::npos) << derived;
            EXPECT_NE(derived[0], '0') << "hex names carry no leading zero";
        }
    }
    EXPECT_NE(sm::deriveSegmentName("seg", ""), sm::deriveSegmentName("seg", "staff"));
}

}  // namespace
