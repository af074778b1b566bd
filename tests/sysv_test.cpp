// What only the System V back end does: keys hashed from names, sizes the kernel refuses, and
// identifiers that have gone stale.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

#include "Leaks.hpp"
#include "LogCapture.hpp"
#include "Names.hpp"
#include "Thrown.hpp"
#include "Processes.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"
#include "sysv/SysVImpl.hpp"

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;

namespace {

using spf_test::thrownText;

constexpr unsigned long kSize = 4096;

// The single record a failure leaves, with its severity and channel checked on the way.
std::string onlyRecord(const spf_test::LogCapture& capture) {
    const auto records = capture.records();
    if (records.size() != 1) {
        ADD_FAILURE() << records.size() << " records instead of one";
        return std::string();
    }
    EXPECT_EQ(records[0].severity, 512);
    EXPECT_EQ(records[0].channel, "agent::spf::sharedmemory");
    return records[0].message;
}

TEST(SysV, KeyIsTheLow32BitsOfTheHashOfTheWholeNameWithItsSlash) {
    EXPECT_EQ(sm::segmentKey("/x"), static_cast<key_t>(std::hash<std::string>{}("/x")));
    EXPECT_NE(sm::segmentKey("/x"), sm::segmentKey("x"));

    const std::string name = spf_test::uniqueName();
    const key_t key = sm::segmentKey("/" + name);
    EXPECT_EQ(key, static_cast<key_t>(std::hash<std::string>{}("/" + name)));
    {
        SharedMemory segment(name, kSize, true, "", SharedMemory::SysV);
        ASSERT_TRUE(segment.isAttached());
        EXPECT_TRUE(spf_test::sysvKeyExists(key));
        EXPECT_FALSE(spf_test::sysvKeyExists(sm::segmentKey(name)));
        spf_test::Ownership entry;
        ASSERT_TRUE(spf_test::sysvOwnership(key, entry));
        EXPECT_EQ(entry.size, kSize);
        EXPECT_EQ(entry.mode, 0700u);
    }
    EXPECT_FALSE(spf_test::sysvKeyExists(key));
}

// The kernel refuses a new segment of size 0 with EINVAL, which create() takes like a taken
// name: the create flag stays quiet, and create-or-find must end instead of spinning forever.
TEST(SysV, SizeZeroIsAQuietCreateAndABoundedCreateOrFind) {
    const std::string name = spf_test::uniqueName();
    const key_t key = sm::segmentKey("/" + name);
    spf_test::LogCapture capture;
    {
        SharedMemory quiet(name, 0, true, "", SharedMemory::SysV);
        EXPECT_FALSE(quiet.isAttached());
        EXPECT_EQ(quiet.getPointer(), nullptr);
    }
    EXPECT_TRUE(capture.records().empty());

    const auto start = std::chrono::steady_clock::now();
    const std::string text = thrownText<std::runtime_error>(
        [&] { SharedMemory loop(name, 0, "", SharedMemory::SysV); });
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(text, "SystemError:SharedMemory:createOrFind:/" + name +
                        ":the segment could be neither created nor found after 10000 "
                        "attempts:error=2");
    EXPECT_EQ(onlyRecord(capture), "createOrFind(): Could neither create nor find the segment: </" +
                                       name + "> after 10000 attempts. (Error 2)");
    EXPECT_LT(elapsed, std::chrono::seconds(1)) << "the create-or-find loop must give up promptly";
    EXPECT_FALSE(spf_test::sysvKeyExists(key));
}

TEST(SysV, FindLargerThanTheSegmentNamesTheOwnerFromTheKernelTable) {
    const std::string name = spf_test::uniqueName();
    const passwd* self = ::getpwuid(::geteuid());
    ASSERT_NE(self, nullptr);
    const std::string owner = self->pw_name;
    // Only root may hand a segment to a group it is no member of.
    const std::string group = spf_test::isRoot() ? "staff" : "";
    SharedMemory creator(name, kSize, true, group, SharedMemory::SysV);
    spf_test::LogCapture capture;
    const std::string text = thrownText<std::runtime_error>(
        [&] { SharedMemory finder(name, 2 * kSize, false, "", SharedMemory::SysV); });
    EXPECT_EQ(text, "SystemError:SharedMemory:find:shmget: name=</" + name +
                        ">, owning group=<" + group + ">, owning user=<" + owner +
                        ">, selected group=<>, current username=<" + sm::getCurrentUserName() +
                        ">, error=22");
    EXPECT_EQ(onlyRecord(capture),
              "find(): Failed to open the existing segment: </" + name + ">. (Error 22)");
    EXPECT_TRUE(creator.isAttached());
}

// A create flag on a taken name holds identifier -1: both queries must fail on it, and its
// teardown must leave the other handle's segment alone although the create flag marked it.
TEST(SysV, QueriesOnAnUnattachedHandleFailWithTheStaleIdentifier) {
    const std::string name = spf_test::uniqueName();
    const key_t key = sm::segmentKey("/" + name);
    SharedMemory creator(name, kSize, true, "", SharedMemory::SysV);
    {
        SharedMemory late(name, kSize, true, "", SharedMemory::SysV);
        ASSERT_FALSE(late.isAttached());
        spf_test::LogCapture capture;
        EXPECT_EQ(thrownText<std::runtime_error>([&] { late.getOwner(); }),
                  "SystemError:SharedMemory:getOwner:shmctl/" + name + ":error=22");
        EXPECT_EQ(onlyRecord(capture),
                  "getOwner(): Failed to stat the segment: </" + name + ">. (Error 22)");
        capture.clear();
        EXPECT_EQ(thrownText<std::runtime_error>([&] { late.getTrustee(); }),
                  "SystemError:SharedMemory:getTrustee:shmctl/" + name + ":error=22");
        EXPECT_EQ(onlyRecord(capture),
                  "getTrustee(): Failed to stat the segment: </" + name + ">. (Error 22)");
    }
    EXPECT_TRUE(spf_test::sysvKeyExists(key));
    EXPECT_TRUE(creator.isAttached());
}

// Someone else removed the segment while it was mapped here; the detach lets the kernel free
// it, so the removal that follows finds no identifier, says so, and still forgets it.
TEST(SysV, RemovingASegmentSomeoneElseRemovedIsLoggedAndForgotten) {
    const std::string name = spf_test::uniqueName();
    const key_t key = sm::segmentKey("/" + name);
    SharedMemory::SysVImpl impl(name, kSize, true, "");
    ASSERT_NE(impl.handle, -1);
    spf_test::removeSysvKey(key);
    EXPECT_FALSE(spf_test::sysvKeyExists(key));

    spf_test::LogCapture capture;
    impl.detach();
    EXPECT_TRUE(capture.records().empty());
    impl.removeAndClose();
    EXPECT_EQ(onlyRecord(capture),
              "removeAndClose(): Failed to remove/unlink the segment: </" + name + ">. (Error 22)");
    EXPECT_EQ(impl.handle, -1);
    EXPECT_EQ(impl.pointer, nullptr);
}

}  // namespace
