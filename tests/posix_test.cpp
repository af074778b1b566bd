// The POSIX back end's own rules: the object's file size carries the segment size between
// processes, the creation mode is subject to the umask, lookups outgrow their first buffer, and
// every path that gives an object up closes its descriptor.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "Leaks.hpp"
#include "LogCapture.hpp"
#include "Names.hpp"
#include "Thrown.hpp"
#include "Processes.hpp"
#include "Seam.hpp"
#include "posix/PosixImpl.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

using spf_test::thrownText;

using Posix = sm::SharedMemory::PosixImpl;
using Records = std::vector<std::string>;
using spf_test::Call;

#define REQUIRE_ROOT() \
    if (!spf_test::isRoot()) GTEST_SKIP() << "needs root to hand segments to group staff"

class PosixBackEnd : public ::testing::Test {
protected:
    void TearDown() override {
        spf_test::disarmAll();
        for (const std::string& name : names_) {
            EXPECT_FALSE(spf_test::posixObjectExists(name)) << "left behind: " << name;
            spf_test::removePosixObject("/" + name);
        }
    }

    std::string newName() {
        names_.push_back(spf_test::uniqueName("px"));
        return names_.back();
    }

    std::vector<std::string> names_;
};

// The umask is process-wide: put it back whatever the test does.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : previous_(::umask(mask)) {}
    ~ScopedUmask() { ::umask(previous_); }

private:
    mode_t previous_;
};

TEST_F(PosixBackEnd, SizeZeroOnAnEmptyObjectFailsToTruncateAndLeavesNothing) {
    const std::string name = newName();
    const int descriptors = spf_test::openDescriptorCount();
    spf_test::LogCapture log;
    // ftruncate to 0 succeeds but leaves the object empty: no call failed, errno is what it was.
    errno = 0;
    EXPECT_EQ(thrownText<std::runtime_error>([&] { Posix(name, 0, true, ""); }),
              "SystemError:SharedMemory:attach:ftruncate/" + name + ":error=0");
    EXPECT_EQ(log.messages(), Records{"attach(): Failed to truncate the segment: </" + name + ">. (Error 0)"});
    EXPECT_FALSE(spf_test::posixObjectExists(name));
    EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
}

TEST_F(PosixBackEnd, SizeZeroOnASizedObjectFailsToMapAndTheFinderLeavesIt) {
    const std::string name = newName();
    Posix creator(name, 64, true, "");
    const int descriptors = spf_test::openDescriptorCount();
    spf_test::LogCapture log;
    EXPECT_EQ(thrownText<std::runtime_error>([&] { Posix(name, 0, false, ""); }),
              "SystemError:SharedMemory:attach:mmap/" + name + ":error=22");
    EXPECT_EQ(log.messages(), Records{"attach(): Failed to map the segment: </" + name + ">. (Error 22)"});
    EXPECT_TRUE(spf_test::posixObjectExists(name));
    EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
}

TEST_F(PosixBackEnd, FinderMayAskForLessThanTheObjectHoldsButNotForMore) {
    const std::string name = newName();
    Posix creator(name, 4096, "");
    std::strcpy(static_cast<char*>(creator.getPointer()) + 1000, "shared");
    {
        Posix smaller(name, 1024, false, "");
        ASSERT_TRUE(smaller.isAttached());
        EXPECT_STREQ(static_cast<char*>(smaller.getPointer()) + 1000, "shared");
    }
    const int descriptors = spf_test::openDescriptorCount();
    spf_test::LogCapture log;
    // Nothing fails on this path, so the texts carry whatever errno holds: after create-or-find
    // that is the EEXIST of its create attempt.
    EXPECT_EQ(thrownText<std::runtime_error>([&] { Posix(name, 8192, ""); }),
              "SystemError:SharedMemory:attach:st_size/" + name + ":error=17");
    EXPECT_EQ(log.messages(), Records{"isTruncated(): Inconsistent shared memory size: </" + name + ">. (Error17)"});
    spf_test::Ownership stamp;
    ASSERT_TRUE(spf_test::posixOwnership(name, stamp));
    EXPECT_EQ(stamp.size, 4096u);
    EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
}

TEST_F(PosixBackEnd, FinderThatComesFirstSizesAnEmptyObject) {
    const std::string name = newName();
    const int raw = ::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_NE(raw, -1);
    ::close(raw);
    {
        Posix finder(name, 8192, false, "");
        EXPECT_TRUE(finder.isAttached());
        static_cast<char*>(finder.getPointer())[8191] = 1;
    }
    spf_test::Ownership stamp;
    ASSERT_TRUE(spf_test::posixOwnership(name, stamp));
    EXPECT_EQ(stamp.size, 8192u);
    EXPECT_EQ(::shm_unlink(("/" + name).c_str()), 0);  // a finder never removes what it found
}

TEST_F(PosixBackEnd, CreateFailureNamesTheStillEmptyTrusteeField) {
    const std::string name = newName() + std::string(300, 'x');
    errno = 0;
    ASSERT_EQ(::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0700), -1);
    const std::string error = std::to_string(errno);
    spf_test::LogCapture log;
    EXPECT_EQ(thrownText<std::runtime_error>([&] { Posix(name, 4096, "staff"); }),
              "SystemError:SharedMemory:create:shm_open:  name=</" + name + ">, trustee=<>, error=" + error);
    EXPECT_EQ(log.messages(), Records{"create(): Failed to create the segment: </" + name + ">. (Error " + error + ")"});
}

TEST_F(PosixBackEnd, UmaskShapesTheCreationModeButNotTheGrantedGroupClass) {
    REQUIRE_ROOT();
    const std::string bare = newName();
    const std::string shared = newName();
    const std::string trusted = newName();
    spf_test::Ownership stamp;
    {
        ScopedUmask mask(0100);
        Posix noOwner(bare, 4096, true, "");
        Posix grantedNoOwner(shared, 4096, true, "staff");
        ASSERT_TRUE(spf_test::posixOwnership(bare, stamp));
        EXPECT_EQ(stamp.mode, 0600u);
        ASSERT_TRUE(spf_test::posixOwnership(shared, stamp));
        EXPECT_EQ(stamp.mode, 0670u);
        spf_test::disarmAll();
        EXPECT_EQ(noOwner.getOwner(), "");
        EXPECT_EQ(grantedNoOwner.getOwner(), "");
        EXPECT_EQ(spf_test::callCount(Call::getpwuid_r), 0);  // no class, no lookup
        EXPECT_EQ(grantedNoOwner.getTrustee(), "staff");
    }
    ScopedUmask mask(0010);
    Posix creator(trusted, 4096, true, "staff");
    ASSERT_TRUE(spf_test::posixOwnership(trusted, stamp));
    EXPECT_EQ(stamp.mode, 0770u);
    EXPECT_EQ(creator.getOwner(), "root");
    EXPECT_EQ(creator.getTrustee(), "staff");
}

TEST_F(PosixBackEnd, LookupsDoubleTheirBufferUntilALargeEntryFits) {
    REQUIRE_ROOT();
    const std::string name = newName();
    spf_test::disarmAll();
    spf_test::forceRangeErrorsBelow(16384);
    Posix creator(name, 4096, true, "staff");
    EXPECT_EQ(spf_test::callCount(Call::getgrnam_r), 4);  // 2048, 4096, 8192, 16384
    EXPECT_EQ(creator.getTrustee(), "staff");
    EXPECT_EQ(spf_test::callCount(Call::getgrgid_r), 4);
    EXPECT_EQ(creator.getOwner(), "root");
    EXPECT_EQ(spf_test::callCount(Call::getpwuid_r), 4);
    EXPECT_EQ(spf_test::largestLookupBuffer(), 16384u);
    spf_test::Ownership stamp;
    ASSERT_TRUE(spf_test::posixOwnership(name, stamp));
    EXPECT_EQ(stamp.gid, spf_test::groupId("staff"));
}

TEST_F(PosixBackEnd, CreatorOutsideTheGroupCannotHandItOverAndLeavesNothing) {
    REQUIRE_ROOT();
    const std::string name = newName();
    spf_test::Channel heard;
    const int code = spf_test::runAsUser(spf_test::kNobody, spf_test::kNogroup, {}, [&] {
        const int descriptors = spf_test::openDescriptorCount();
        spf_test::LogCapture log;
        heard.send(thrownText<std::runtime_error>([&] { Posix(name, 4096, "staff"); }));
        for (const std::string& record : log.messages()) heard.send("\n" + record);
        return spf_test::openDescriptorCount() == descriptors ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(heard.receive(), "SystemError:SharedMemory:setTrustee:fchown staff:error=1\n"
                               "setTrustee(): Failed to change the group to: <staff>. (Error 1)");
    EXPECT_FALSE(spf_test::posixObjectExists(name));
}

TEST_F(PosixBackEnd, TrusteeMismatchAndUnknownGroupsCloseTheDescriptor) {
    REQUIRE_ROOT();
    const std::string name = newName();
    const std::string fresh = newName();
    Posix creator(name, 4096, true, "staff");
    const int descriptors = spf_test::openDescriptorCount();
    spf_test::LogCapture log;
    {
        Posix other(name, 4096, false, "users");
        EXPECT_FALSE(other.isAttached());
        EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
    }
    EXPECT_EQ(thrownText<std::invalid_argument>([&] { Posix(name, 4096, false, "nosuchgroup"); }),
              "SystemError:SharedMemory:getgrnam:trustee=nosuchgroup:error= -1");
    EXPECT_EQ(thrownText<std::invalid_argument>([&] { Posix(fresh, 4096, true, "nosuchgroup"); }),
              "SystemError:SharedMemory:getgrnam:trustee=nosuchgroup:error= -1");
    EXPECT_EQ(spf_test::openDescriptorCount(), descriptors);
    EXPECT_TRUE(spf_test::posixObjectExists(name));
    EXPECT_FALSE(spf_test::posixObjectExists(fresh));
    EXPECT_EQ(log.messages().size(), 2u);  // the mismatch is no failure
}

}  // namespace
