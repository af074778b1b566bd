// The commands that open a segment through the library's handle, as an application does.
// The library's records go to stderr: teardown failures (a removal that did not happen) are
// only logged.
#include <pwd.h>
#include <signal.h>

#include <boost/core/null_deleter.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "Commands.hpp"
#include "Output.hpp"
#include "System.hpp"
#include "agent/spf/sharedmemory/SharedMemory.hpp"

namespace spfshm {

namespace sm = agent::spf::sharedmemory;
using sm::SharedMemory;

namespace {

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

// Set before the segment is opened, so that a signal at any point still lets the teardown run:
// a closed terminal (SIGHUP) or a reader gone (SIGPIPE) as well as an operator's interrupt.
void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
        ::sigaction(signal, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}

void hold(unsigned long seconds) {
    std::printf("holding for %lu s\n", seconds);
    std::fflush(stdout);
    timespec left{static_cast<time_t>(seconds), 0};
    while (!stopRequested && ::nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

std::string orNone(const std::string& text) { return text.empty() ? "(none)" : text; }

// The segment as the system shows it now; false when there is none or it cannot be seen.
bool inSystem(const std::string& name, bool sysv, Segment& out) {
    if (!sysv) return posixObject(name, out);
    const std::int32_t key = sm::deriveSystemVKey(name);
    try {
        for (const Segment& segment : sysvSegments()) {
            if (segment.key == key && !segment.markedForRemoval) return out = segment, true;
        }
    } catch (const Failure&) {
    }
    return false;
}

// The library names an owner only when the owner class has rwx; say who owns it all the same.
std::string ownerLine(const SharedMemory& segment, const Segment& shown, bool seen) {
    const std::string owner = segment.getOwner();
    if (!owner.empty() || !seen) return orNone(owner);
    const passwd* entry = ::getpwuid(shown.uid);
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", shown.mode);
    return "(none: " +
           (entry != nullptr ? std::string(entry->pw_name) : std::to_string(shown.uid)) +
           " owns it, but mode " + mode + " lacks rwx for the owner)";
}

}  // namespace

int name(const Arguments& arguments) {
    const std::string& trustee = arguments.trustee               ? *arguments.trustee
                                 : arguments.operands.size() > 1 ? arguments.operands[1]
                                                                 : "";
    const std::string derived = sm::deriveSegmentName(arguments.operands[0], trustee);
    if (arguments.sysv)
        std::printf("0x%08x\n", static_cast<unsigned>(sm::deriveSystemVKey(derived)));
    else
        std::printf("%s\n", derived.c_str());
    return 0;
}

int open(const Arguments& arguments) {
    const std::string name = segmentName(arguments);
    const unsigned long size = std::stoul(arguments.operands[1]);
    const std::string trustee = arguments.trustee.value_or("");
    const auto spec = arguments.sysv ? SharedMemory::SysV : SharedMemory::Posix;
    const char* backEnd = arguments.sysv ? "System V" : "POSIX";
    catchStopSignals();
    Segment shown;
    // The library's finder would size an object that is still empty; looking for one must not.
    if (arguments.command == "find" && !arguments.sysv) {
        if (!posixObject(name, shown)) throw Failure{"no segment /" + escapedName(name)};
        if (shown.size == 0) {
            throw Failure{"/" + escapedName(name) +
                          " has 0 bytes: its creator has not sized it yet, and find does not"};
        }
    }
    const auto construct = [&] {
        if (arguments.command == "create-or-find") return SharedMemory(name, size, trustee, spec);
        return SharedMemory(name, size, arguments.command == "create", trustee, spec);
    };
    std::optional<SharedMemory> segment;
    try {
        segment.emplace(construct());
    } catch (const std::runtime_error& error) {
        // The library's text does not say which sizes disagree; the system does.
        const unsigned long long existing = inSystem(name, arguments.sysv, shown) ? shown.size : 0;
        if (existing != 0 && existing < size) {
            throw Failure{"size mismatch: /" + escapedName(name) + " has " +
                          std::to_string(existing) + " bytes, " + std::to_string(size) +
                          " were asked for (" + escapedName(error.what()) + ")"};
        }
        throw;
    }
    if (!segment->isAttached()) {
        if (arguments.command == "create")
            throw Failure{"the segment /" + escapedName(name) + " exists already"};
        throw Failure{"no segment /" + escapedName(name) +
                      (trustee.empty() ? "" : " that trusts group " + escapedName(trustee))};
    }
    // Before makePersistent: a creator whose memory could not be backed leaves nothing behind.
    if (arguments.reserve) segment->reserve();
    if (arguments.persistent) segment->makePersistent();
    const bool seen = inSystem(name, arguments.sysv, shown);
    std::printf("segment: /%s (%s)\n", escapedName(name).c_str(), backEnd);
    if (arguments.sysv) {
        std::printf("key: 0x%08x\n", static_cast<unsigned>(sm::deriveSystemVKey(name)));
        if (seen) std::printf("id: %d\n", shown.id);
    }
    // Whether this command leaves the segment behind; a finder never removes it, so whether it
    // outlives its creator is the creator's choice.
    const char* persistent = !segment->isCreator()
                                 ? "left to its creator (a finder never removes it)"
                             : arguments.persistent ? "yes"
                                                    : "no";
    std::printf("role: %s\nowner: %s\ntrustee: %s\nsize: %lu\npersistent: %s\n",
                segment->isCreator() ? "creator" : "finder",
                escapedName(ownerLine(*segment, shown, seen)).c_str(),
                escapedName(orNone(segment->getTrustee())).c_str(),
                size, persistent);
    if (arguments.reserve && seen) std::printf("allocated: %llu\n", shown.allocated);
    if (arguments.hold > 0) hold(arguments.hold);
    return 0;
}

// Without a sink of its own, Boost.Log would print the records on stdout among the results.
void logToStderr() {
    namespace logging = boost::log;
    auto backend = boost::make_shared<logging::sinks::text_ostream_backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, boost::null_deleter()));
    backend->auto_flush(true);
    auto sink =
        boost::make_shared<logging::sinks::synchronous_sink<logging::sinks::text_ostream_backend>>(
            backend);
    sink->set_filter(logging::expressions::attr<std::string>("Channel") ==
                     "agent::spf::sharedmemory");
    // The records name segments as they are.
    sink->set_formatter([](const logging::record_view& record, logging::formatting_ostream& out) {
        const auto message = record[logging::expressions::smessage];
        out << "spf-shm: log: " << escapedName(message ? message.get() : std::string());
    });
    logging::core::get()->add_sink(sink);
}

}  // namespace spfshm
