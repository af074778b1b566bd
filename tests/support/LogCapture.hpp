// Collects the records that reach the Boost.Log core while it is alive.
#pragma once

#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/shared_ptr.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace spf_test {

struct CapturedRecord {
    std::string message;
    int severity = -1;          // -1: the record had no severity
    std::string channel;        // empty: the record had no channel
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedRecord> records() const;
    std::vector<std::string> messages() const;
    void clear();

    class Backend;

private:
    boost::shared_ptr<Backend> backend_;
    boost::shared_ptr<boost::log::sinks::sink> sink_;
};

}  // namespace spf_test
