#include "LogCapture.hpp"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/make_shared.hpp>

namespace spf_test {

class LogCapture::Backend
    : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
public:
    void consume(const boost::log::record_view& record) {
        CapturedRecord captured;
        if (auto message = boost::log::extract<std::string>(boost::log::expressions::message.get_name(), record)) {
            captured.message = *message;
        }
        if (auto severity = boost::log::extract<int>("Severity", record)) {
            captured.severity = *severity;
        }
        if (auto channel = boost::log::extract<std::string>("Channel", record)) {
            captured.channel = *channel;
        }
        std::lock_guard<std::mutex> guard(lock);
        records.push_back(std::move(captured));
    }

    mutable std::mutex lock;
    std::vector<CapturedRecord> records;
};

LogCapture::LogCapture() : backend_(boost::make_shared<Backend>()) {
    sink_ = boost::make_shared<boost::log::sinks::synchronous_sink<Backend>>(backend_);
    boost::log::core::get()->add_sink(sink_);
}

LogCapture::~LogCapture() { boost::log::core::get()->remove_sink(sink_); }

std::vector<CapturedRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> guard(backend_->lock);
    return backend_->records;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> result;
    for (const CapturedRecord& record : records()) {
        result.push_back(record.message);
    }
    return result;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> guard(backend_->lock);
    backend_->records.clear();
}

}  // namespace spf_test
