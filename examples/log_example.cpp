// spf-log-example: how an application sees the library's failure records. It adds a Boost.Log
// sink that only admits the library's channel, provokes one failure (a trustee that names no
// group) and prints the record the sink captured next to the exception the call threw.
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sources/channel_logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/make_shared.hpp>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace logging = boost::log;
using agent::spf::sharedmemory::SharedMemory;

namespace {

// Keeps what it receives so that it can be shown after the failing call.
class Collector : public logging::sinks::basic_sink_backend<logging::sinks::synchronized_feeding> {
public:
    void consume(const logging::record_view& record) {
        const auto channel = logging::extract<std::string>("Channel", record);
        const auto severity = logging::extract<int>("Severity", record);
        const auto message = logging::extract<std::string>("Message", record);
        lines.push_back("[" + channel.get() + "] severity " +
                        (severity ? std::to_string(*severity) : std::string("-")) + ": " +
                        message.get());
    }
    std::vector<std::string> lines;
};

}  // namespace

int main() {
    auto collector = boost::make_shared<Collector>();
    auto sink = boost::make_shared<logging::sinks::synchronous_sink<Collector>>(collector);
    sink->set_filter(logging::expressions::attr<std::string>("Channel") ==
                     "agent::spf::sharedmemory");
    logging::core::get()->add_sink(sink);

    // A record of the application's own on another channel, which the filter keeps out.
    logging::sources::channel_logger<std::string> application(logging::keywords::channel = "app");
    BOOST_LOG(application) << "starting";

    const std::string name = "spf-log-example-" + std::to_string(::getpid());
    const char* trustee = "no-such-group-spf-example";
    std::printf("Opening segment /%s with trustee <%s>...\n", name.c_str(), trustee);
    int code = 1;
    try {
        SharedMemory segment(name, 4096, trustee);
        std::printf("unexpectedly succeeded: a group <%s> exists\n", trustee);
    } catch (const std::invalid_argument& error) {
        std::printf("exception std::invalid_argument: %s\n", error.what());
        code = 0;
    } catch (const std::exception& error) {
        std::printf("unexpected exception: %s\n", error.what());
    }

    sink->flush();
    logging::core::get()->remove_sink(sink);
    std::printf("records captured on channel agent::spf::sharedmemory: %zu\n",
                collector->lines.size());
    for (const std::string& line : collector->lines) {
        std::printf("  %s\n", line.c_str());
    }
    return collector->lines.size() == 1 ? code : 1;
}
