// Every failure is one record on the channel, then an exception: whether or not the channel lets
// the record through, from any thread, even during process exit.
#include <gtest/gtest.h>

#include <boost/log/core/core.hpp>

#include <unistd.h>

#include <cstring>
#include <set>
#include <thread>

#include "Support.hpp"
#include "core/Report.hpp"

namespace sm = agent::spf::sharedmemory;

namespace {

using Records = std::vector<std::string>;

[[noreturn]] void failLikeAnOperation(int error) {
    sm::report<std::runtime_error>("SystemError:SharedMemory:create:shmget/n:error=" + std::to_string(error),
                                   "create(): Failed to create the segment: <", std::string("/n"), ">. (Error ",
                                   error, ")");
}

std::string thrownFor(int error) { return spf_test::thrown([&] { failLikeAnOperation(error); }); }

// LogCapture marks a record that is not at severity 512 on "agent::spf::sharedmemory" as stray.
TEST(Diagnostics, TheRecordIsThePiecesAndAClosedChannelDropsItButNotTheException) {
    spf_test::LogCapture log;
    sm::DiagnosticLogger& logger = sm::getLogger();
    EXPECT_EQ(thrownFor(-3), "runtime_error: SystemError:SharedMemory:create:shmget/n:error=-3");
    logger.disableLevels(512);
    const std::string levelOff = thrownFor(13);
    logger.enableLevels(512);
    boost::log::core::get()->set_logging_enabled(false);
    const std::string coreOff = thrownFor(13);
    boost::log::core::get()->set_logging_enabled(true);
    EXPECT_EQ(levelOff, "runtime_error: SystemError:SharedMemory:create:shmget/n:error=13");
    EXPECT_EQ(coreOff, levelOff);
    EXPECT_EQ(thrownFor(28), "runtime_error: SystemError:SharedMemory:create:shmget/n:error=28");
    EXPECT_EQ(log.messages(), (Records{"create(): Failed to create the segment: </n>. (Error -3)",
                                       "create(): Failed to create the segment: </n>. (Error 28)"}));
}

TEST(Diagnostics, ConcurrentFailuresEachWriteOneWholeRecord) {
    spf_test::LogCapture log;
    constexpr int kThreads = 4, kEach = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] { for (int i = 0; i < kEach; ++i) thrownFor(t * 1000 + i); });
    }
    for (auto& thread : threads) thread.join();
    const Records records = log.messages();
    const std::set<std::string> distinct(records.begin(), records.end());
    EXPECT_EQ(records.size(), static_cast<std::size_t>(kThreads * kEach));
    EXPECT_EQ(distinct.size(), records.size()) << "records were lost or mixed";
    EXPECT_EQ(distinct.count("create(): Failed to create the segment: </n>. (Error 3199)"), 1u);
    EXPECT_EQ(distinct.begin()->rfind("[stray]", 0), std::string::npos) << "stray records sort first";
}

TEST(Diagnostics, FirstUseFromManyThreadsBuildsOneLogger) {
    EXPECT_EQ(spf_test::runInChild([] {
        std::vector<std::thread> threads;
        std::vector<sm::DiagnosticLogger*> seen(8);
        for (int t = 0; t < 8; ++t) threads.emplace_back([&, t] { seen[t] = &sm::getLogger(); });
        for (auto& thread : threads) thread.join();
        return std::set<sm::DiagnosticLogger*>(seen.begin(), seen.end()).size() == 1 ? 0 : 1;
    }), 0);
}

// A handle with static storage duration may fail in its teardown after the logger is gone. The
// logger must be built after that handle for it to be destroyed first, which only a fresh process
// guarantees: the test re-runs this binary, and this probe takes over before main().
struct LateFailureProbe {
    LateFailureProbe() {
        const char* fd = std::getenv("SPF_LATE_FAILURE_PROBE");
        if (fd == nullptr) return;
        struct LateFailure {
            int out;
            ~LateFailure() {
                sm::writeRecord("detach(): Failed to detach the segment: </late>. (Error ", 22, ")");
                const char* verdict = sm::loggerAvailable() ? "alive" : "dropped";
                (void)!::write(out, verdict, std::strlen(verdict));
            }
        };
        static LateFailure late{std::atoi(fd)};
        sm::writeRecord("the first record builds the logger");
        std::exit(0);
    }
} lateFailureProbe;

TEST(Diagnostics, RecordsAfterTheLoggerIsDestroyedAreDropped) {
    // The binary's own path, not /proc/self/exe: under Valgrind that names Valgrind.
    char self[4096] = {};
    ASSERT_GT(::readlink("/proc/self/exe", self, sizeof self - 1), 0);
    spf_test::Pipe verdict;
    EXPECT_EQ(spf_test::runInChild([&] {
        ::setenv("SPF_LATE_FAILURE_PROBE", std::to_string(verdict.fds[1]).c_str(), 1);
        ::execl(self, "diagnostics_test", static_cast<char*>(nullptr));
        return 99;
    }), 0);
    EXPECT_EQ(verdict.receive(), "dropped");
}

}  // namespace
