#include "core/DiagnosticLogger.hpp"

#include <utility>

#include <boost/log/keywords/channel.hpp>
#include <boost/log/keywords/severity.hpp>

namespace agent::spf::sharedmemory {
namespace {

// Trivially destructible, so it can still be read while other statics are torn down after the
// logger itself is gone (a handle with static storage duration failing in its teardown).
enum LoggerState : int { kNotBuilt, kAlive, kDestroyed };
std::atomic<int> loggerState{kNotBuilt};

}  // namespace

DiagnosticLogger::DiagnosticLogger(const std::string& channel)
    : enabled_(kDiagnosticSeverity),
      core_(boost::log::core::get()),
      source_(boost::log::keywords::channel = channel) {
    loggerState.store(kAlive, std::memory_order_release);
}

DiagnosticLogger::~DiagnosticLogger() {
    loggerState.store(kDestroyed, std::memory_order_release);
}

bool DiagnosticLogger::isLevelEnabled(int level) const noexcept {
    return (enabled_.load(std::memory_order_relaxed) & static_cast<std::uint32_t>(level)) != 0;
}

void DiagnosticLogger::enableLevels(std::uint32_t bits) noexcept {
    enabled_.fetch_or(bits, std::memory_order_relaxed);
}

void DiagnosticLogger::disableLevels(std::uint32_t bits) noexcept {
    enabled_.fetch_and(~bits, std::memory_order_relaxed);
}

boost::log::record DiagnosticLogger::openRecord(int level) {
    // The source is the single-threaded variant: this lock is what makes sharing it safe. The
    // severity itself lands in a per-thread slot, so concurrent records keep their own level.
    std::lock_guard<std::mutex> guard(lock_);
    return source_.open_record(boost::log::keywords::severity = level);
}

void DiagnosticLogger::pushRecord(boost::log::record&& record) {
    source_.push_record(std::move(record));
}

DiagnosticLogger& getLogger() {
    static DiagnosticLogger logger(kChannelName);
    return logger;
}

bool loggerAvailable() noexcept {
    return loggerState.load(std::memory_order_acquire) != kDestroyed;
}

}  // namespace agent::spf::sharedmemory
