// spf-shm: look at the shared-memory segments of this host, find the ones that crashed
// processes left behind, and create, find or remove segments as the library does.
#include <malloc.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <exception>

#include "Commands.hpp"
#include "Output.hpp"

namespace {

int run(int argc, char** argv) {
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
        // The library's texts name segments as they are.
        std::fprintf(stderr, "spf-shm: %s\n", escapedName(error.what()).c_str());
        return 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // The locale decides which characters a terminal can print, their widths, and the
    // decimal point of sizes.
    std::setlocale(LC_ALL, "");
    // A listing of thousands of segments grows and drops arrays of a few hundred KiB; served
    // from mmap, each would be mapped afresh and fault in page by page.
    ::mallopt(M_MMAP_THRESHOLD, 64 << 20);
    ::mallopt(M_TRIM_THRESHOLD, 64 << 20);  // and keeps what it freed for the next
    const int status = run(argc, argv);
    // A listing that did not reach its reader (a full disk, a closed pipe) is a failure.
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "spf-shm: write error: %s\n", std::strerror(errno));
        return status == 0 || status == 3 ? 1 : status;
    }
    return status;
}
