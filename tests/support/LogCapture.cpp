#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>

#include <mutex>

#include "Support.hpp"

namespace spf_test {

struct LogCapture::State : boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
    void consume(const boost::log::record_view& record) {
        const auto message = boost::log::extract<std::string>(boost::log::expressions::message.get_name(), record);
        const auto severity = boost::log::extract<int>("Severity", record);
        const auto channel = boost::log::extract<std::string>("Channel", record);
        const bool ours = severity && *severity == 512 && channel && *channel == "agent::spf::sharedmemory";
        std::lock_guard<std::mutex> guard(lock);
        messages.push_back((ours ? "" : "[stray] ") + (message ? *message : std::string()));
    }

    mutable std::mutex lock;
    std::vector<std::string> messages;
    boost::shared_ptr<boost::log::sinks::sink> sink;
};

// The sink holds the state through a pointer that does not own it: the state outlives the sink.
LogCapture::LogCapture() : state(std::make_shared<State>()) {
    state->sink = boost::make_shared<boost::log::sinks::synchronous_sink<State>>(
        boost::shared_ptr<State>(state.get(), [](State*) {}));
    boost::log::core::get()->add_sink(state->sink);
}

LogCapture::~LogCapture() { boost::log::core::get()->remove_sink(state->sink); }

std::vector<std::string> LogCapture::messages() const {
    std::lock_guard<std::mutex> guard(state->lock);
    return state->messages;
}

}  // namespace spf_test
