// spf-shm: look at the shared-memory segments of this host, find the ones that crashed
// processes left behind, and create, find or remove segments as the library does.
#include <cstdio>
#include <exception>

#include "Commands.hpp"

int main(int argc, char** argv) {
    using namespace spfshm;
    try {
        const Arguments arguments = parseArguments(argc, argv);
        if (arguments.help) return std::fputs(kHelp, stdout), 0;
        if (arguments.version) return std::printf("spf-shm %s\n", SPF_SHM_VERSION), 0;
        const std::string& command = arguments.command;
        if (command == "list" || command == "orphans") return list(arguments);
        if (command == "show") return show(arguments);
        if (command == "remove") return remove(arguments);
        if (command == "prune") return prune(arguments);
        if (command == "name") return name(arguments);
        logToStderr();
        return open(arguments);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "spf-shm: %s\n%s", error.text.c_str(), kUsage);
        return 2;
    } catch (const Failure& failure) {
        std::fprintf(stderr, "spf-shm: %s\n", failure.text.c_str());
        return 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "spf-shm: %s\n", error.what());
        return 1;
    }
}
