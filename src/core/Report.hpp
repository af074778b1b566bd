// Failure reporting: every failure of the library is one record on the diagnostic channel,
// then an exception. Every failure site goes through report() below; none formats its own
// record.
#ifndef SPF_SHAREDMEMORY_CORE_REPORT_HPP
#define SPF_SHAREDMEMORY_CORE_REPORT_HPP

#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>

#include <boost/log/core/record.hpp>
#include <boost/log/sources/record_ostream.hpp>

#include "core/DiagnosticLogger.hpp"

namespace agent::spf::sharedmemory {

// A piece that is errno itself stands for the value errno had when the record was asked for:
// the logging core may change errno before the pieces are formatted (an attribute such as a
// local time stamp that reads the time zone, a filter, a sink), and the record must name the
// failed call's number, not that.
template <typename Piece>
const Piece& frozenPiece(const Piece& piece, const int& errnoOnEntry) noexcept {
    if constexpr (std::is_same_v<Piece, int>) {
        if (&piece == &errno) {
            return errnoOnEntry;
        }
    }
    return piece;
}

// Writes one record made of `pieces` (literal texts, strings, error numbers in decimal, nothing
// between them) at the library's severity, when the logger's level set, the core and its
// filters admit it. Never throws: a record that cannot be written is lost, not turned into a
// second failure. Leaves errno as it found it, so that a text built afterwards reads the same
// number.
template <typename... Pieces>
void writeRecord(const Pieces&... pieces) noexcept {
    const int savedErrno = errno;
    try {
        if (loggerAvailable()) {
            DiagnosticLogger& logger = getLogger();
            if (logger.isLevelEnabled(kDiagnosticSeverity) && logger.core()->get_logging_enabled()) {
                boost::log::record record = logger.openRecord(kDiagnosticSeverity);
                if (record) {
                    {
                        boost::log::record_ostream stream(record);
                        (stream << ... << frozenPiece(pieces, savedErrno));
                        stream.flush();
                    }
                    logger.pushRecord(std::move(record));
                }
            }
        }
    } catch (...) {
    }
    errno = savedErrno;
}

// Builds the exception text when it is a callable, so that anything it reads (errno after a
// clean-up, the owner of a segment) is read after the record was written.
template <typename Text>
std::string exceptionText(Text&& text) {
    if constexpr (std::is_invocable_v<Text>) {
        return std::forward<Text>(text)();
    } else {
        return std::string(std::forward<Text>(text));
    }
}

// Reports one failure: writes the record from `pieces`, then throws `Exception` with `text`
// (a string, or a callable that returns it). The exception is thrown whether or not a record
// was written.
template <typename Exception, typename Text, typename... Pieces>
[[noreturn]] void report(Text&& text, const Pieces&... pieces) {
    writeRecord(pieces...);
    throw Exception(exceptionText(std::forward<Text>(text)));
}

// The error number as the texts print it.
inline std::string errorNumber(int value) { return std::to_string(value); }

}  // namespace agent::spf::sharedmemory

#endif
