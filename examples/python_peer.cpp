// spf-python-peer: the C++ half of the README's Python example. It creates a segment of 1024
// doubles under a derived name, writes 0, 1, 2, ... into it and says "ready"; a Python process
// then finds the segment by the same name and trustee and reads and writes it through NumPy.
// When a line arrives on stdin, the program prints the sum of the doubles it sees now, so the
// Python side's writes show, and exits; as the creator, its handle removes the segment.
//
//   spf-python-peer [--sysv] NAME [TRUSTEE]
#include <iostream>
#include <numeric>
#include <string>

#include "agent/spf/sharedmemory/SharedMemory.hpp"

using agent::spf::sharedmemory::SharedMemory;

int main(int argc, char** argv) {
    const bool sysv = argc > 1 && std::string(argv[1]) == "--sysv";
    if (argc < 2 + sysv || argc > 3 + sysv) {
        std::cerr << "usage: spf-python-peer [--sysv] NAME [TRUSTEE]\n";
        return 2;
    }
    const std::string name = argv[1 + sysv];
    const std::string trustee = argc > 2 + sysv ? argv[2 + sysv] : "";
    constexpr std::size_t kCount = 1024;
    try {
        const auto backEnd = sysv ? SharedMemory::SysV : SharedMemory::Posix;
        SharedMemory segment =
            SharedMemory::create(name, kCount * sizeof(double), trustee, backEnd);
        if (!segment.isAttached()) {
            std::cerr << "spf-python-peer: the segment exists already\n";
            return 1;
        }
        auto* values = static_cast<double*>(segment.getPointer());
        std::iota(values, values + kCount, 0.0);
        std::cout << "ready" << std::endl;
        std::string line;
        std::getline(std::cin, line);
        std::cout.precision(15);
        std::cout << std::accumulate(values, values + kCount, 0.0) << std::endl;
    } catch (const std::exception& error) {
        std::cerr << "spf-python-peer: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
