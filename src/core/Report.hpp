// Failure reporting: every failure of the library is one record on the diagnostic channel,
// then an exception. Every record is written by writeRecord() below; report() joins it to the
// throw for the sites that do nothing in between.
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

// A piece as the record keeps it: numbers by value, texts by reference.
template <typename Piece>
using KeptPiece = std::conditional_t<std::is_arithmetic_v<Piece>, Piece, const Piece&>;

template <typename... Pieces>
void writeKeptPieces(KeptPiece<Pieces>... pieces) noexcept {
    const int savedErrno = errno;
    try {
        if (loggerAvailable()) {
            DiagnosticLogger& logger = getLogger();
            if (logger.isLevelEnabled(kDiagnosticSeverity) && logger.core()->get_logging_enabled()) {
                boost::log::record record = logger.openRecord(kDiagnosticSeverity);
                if (record) {
                    {
                        boost::log::record_ostream stream(record);
                        (stream << ... << pieces);
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

// Writes one record made of `pieces` (literal texts, strings, error numbers in decimal, nothing
// between them) at the library's severity, when the logger's level set, the core and its
// filters admit it. Never throws: a record that cannot be written is lost, not turned into a
// second failure. Leaves errno as it found it, so that a text built afterwards reads the same
// number.
// Numbers are copied on entry: a site passes errno itself, and the logging core may change errno
// (a time-stamp attribute reading the time zone, a filter, a sink) before the pieces are
// formatted, yet the record must name the failed call's number.
template <typename... Pieces>
void writeRecord(const Pieces&... pieces) noexcept {
    writeKeptPieces<Pieces...>(pieces...);
}

// Builds the exception text when it is a callable, so that what it reads (errno, the owner of
// a segment that could not be opened) is read after the record was written. A text only reads:
// a site that must give its segment up between the record and the text writes the three steps
// out itself (writeRecord(), the clean-up, then throw), so that the order is there to see.
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
