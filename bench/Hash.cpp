// The bare segment-name hash against std::hash<std::string> on the same texts. The hash is
// internal to the library, so this program links its objects rather than the shared library.
//
// Usage: spf_bench_hash [--rows=FILE] [benchmark flags]. Writes its rows to FILE for spf_bench
// to print, or prints its own table without --rows.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "Summary.hpp"
#include "handle/SegmentName.hpp"

namespace {

namespace sm = agent::spf::sharedmemory;

std::string text(std::size_t length) {
    std::string result(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        result[i] = static_cast<char>('a' + (i * 7) % 26);
    }
    return result;
}

void bareHash(benchmark::State& state, std::string input) {
    for (auto _ : state) {
        const char* data = input.data();
        std::size_t length = input.size();
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(length);
        benchmark::DoNotOptimize(sm::hashBytes(data, length));
    }
    state.counters["bytes"] = static_cast<double>(input.size());
}

void standardHash(benchmark::State& state, std::string input) {
    const std::hash<std::string> hash;
    for (auto _ : state) {
        benchmark::DoNotOptimize(input);
        benchmark::DoNotOptimize(hash(input));
    }
    state.counters["bytes"] = static_cast<double>(input.size());
}

// The figures are worthless if the hash measured is not the one segments are named with: it
// must agree with std::hash, and the name derivation with hashing the joined text.
bool hashesAgree() {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string name(random() % 80, '\0');
        std::string trustee(random() % 3 == 0 ? 0 : random() % 40, '\0');
        for (char& c : name) {
            c = static_cast<char>(random());
        }
        for (char& c : trustee) {
            c = static_cast<char>(random());
        }
        if (sm::hashString(name) != std::hash<std::string>{}(name)) {
            return false;
        }
        std::string joined = trustee.empty() ? sm::getCurrentUserName() : trustee;
        joined.append(name).push_back(trustee.empty() ? 'u' : 't');
        if (sm::deriveSegmentName(name, trustee) != sm::hashToHexString(joined)) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string rowsFile;
    if (!spf_bench::initialize(argc, argv, {{"--rows=", &rowsFile}})) {
        return 2;
    }
    if (!hashesAgree()) {
        std::fprintf(stderr,
                     "the segment-name hash disagrees with std::hash or the name derivation\n");
        return 1;
    }
    for (std::size_t length : {8, 64, 1024}) {
        char name[32];
        std::snprintf(name, sizeof name, "hashBytes %zu B", length);
        benchmark::RegisterBenchmark(name, bareHash, text(length));
        std::snprintf(name, sizeof name, "std::hash %zu B", length);
        benchmark::RegisterBenchmark(name, standardHash, text(length));
    }
    spf_bench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const std::vector<spf_bench::Row> rows = collector.rows();
    if (rowsFile.empty()) {
        spf_bench::printTable(rows, std::cout);
    } else {
        std::ofstream out(rowsFile);
        spf_bench::writeRows(rows, out);
    }
    benchmark::Shutdown();
    return 0;
}
