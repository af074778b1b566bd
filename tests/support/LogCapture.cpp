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

namespace {

// Forwards to the capture's backend; Boost.Log wants its own shared_ptr flavour.
class Relay : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
public:
    explicit Relay(std::shared_ptr<LogCapture::Backend> target) : target_(std::move(target)) {}
    void consume(const boost::log::record_view& record) { target_->consume(record); }

private:
    std::shared_ptr<LogCapture::Backend> target_;
};

}  // namespace

LogCapture::LogCapture() : backend_(std::make_shared<Backend>()) {
    auto sink = boost::make_shared<boost::log::sinks::synchronous_sink<Relay>>(
        boost::make_shared<Relay>(backend_));
    sink_ = sink;
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
