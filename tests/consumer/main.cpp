// An application outside the project: it sees only the installed header and library.
#include <agent/spf/sharedmemory/SharedMemory.hpp>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

using agent::spf::sharedmemory::SharedMemory;

int main(int argc, char** argv) {
    const std::string tag = argc > 1 ? argv[1] : "consumer";
    for (const auto spec : {SharedMemory::Posix, SharedMemory::SysV}) {
        const std::string name = "spft-" + tag + "-" + std::to_string(::getpid()) + "-" +
                                 std::to_string(static_cast<int>(spec));
        SharedMemory writer = SharedMemory::createOrFind(name, 4096, "", spec);
        SharedMemory reader = SharedMemory::createOrFind(name, 4096, "", spec);
        if (!writer.isCreator() || reader.isCreator() || !reader.isAttached()) {
            std::fprintf(stderr, "%s: unexpected roles\n", tag.c_str());
            return 1;
        }
        std::strcpy(static_cast<char*>(writer.getPointer()), "through the installed library");
        if (std::strcmp(static_cast<const char*>(reader.getPointer()),
                        "through the installed library") != 0) {
            std::fprintf(stderr, "%s: the bytes did not arrive\n", tag.c_str());
            return 2;
        }
    }
    std::printf("%s: ok (%s)\n", tag.c_str(), agent::spf::sharedmemory::getCurrentUserName().c_str());
    return 0;
}
