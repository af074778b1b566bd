// The library's diagnostic logger: a Boost.Log severity-and-channel source with a set of enabled
// levels in front of it and a lock around record opening.
#ifndef SPF_SHAREDMEMORY_CORE_DIAGNOSTICLOGGER_HPP
#define SPF_SHAREDMEMORY_CORE_DIAGNOSTICLOGGER_HPP

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include <boost/log/core/core.hpp>
#include <boost/log/core/record.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>

namespace agent::spf::sharedmemory {

// The one severity the library writes at.
inline constexpr int kDiagnosticSeverity = 512;

// The channel every record of the library carries.
inline constexpr const char* kChannelName = "agent::spf::sharedmemory";

class __attribute__((visibility("hidden"))) DiagnosticLogger {
public:
    using Source = boost::log::sources::severity_channel_logger<int, std::string>;

    explicit DiagnosticLogger(const std::string& channel);
    ~DiagnosticLogger();
    DiagnosticLogger(const DiagnosticLogger&) = delete;
    DiagnosticLogger& operator=(const DiagnosticLogger&) = delete;

    // Levels are bits: level 512 is admitted while bit 0x200 is set.
    bool isLevelEnabled(int level) const noexcept;
    void enableLevels(std::uint32_t bits) noexcept;
    void disableLevels(std::uint32_t bits) noexcept;

    const boost::log::core_ptr& core() const noexcept { return core_; }

    // Opens a record at `level` under the exclusive lock; the record is invalid when the core's
    // filters reject it.
    boost::log::record openRecord(int level);
    void pushRecord(boost::log::record&& record);

private:
    std::atomic<std::uint32_t> enabled_;
    boost::log::core_ptr core_;
    std::mutex lock_;
    Source source_;
};

// The process-wide logger, built on first use. Throws what the logger's construction throws;
// the next call tries again.
DiagnosticLogger& getLogger();

// False once the process-wide logger has been destroyed at exit: records are then dropped.
bool loggerAvailable() noexcept;

}  // namespace agent::spf::sharedmemory

#endif
