#include "Summary.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <istream>
#include <numeric>
#include <ostream>
#include <sstream>

namespace spf_bench {
namespace {

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double spreadPercent(const std::vector<double>& values) {
    if (values.size() < 2) {
        return 0;
    }
    const double mean = std::accumulate(values.begin(), values.end(), 0.0) / values.size();
    double squares = 0;
    for (double value : values) {
        squares += (value - mean) * (value - mean);
    }
    return mean > 0 ? 100 * std::sqrt(squares / (values.size() - 1)) / mean : 0;
}

std::string formatTime(double ns) {
    char text[32];
    if (ns < 1000) {
        std::snprintf(text, sizeof text, "%.1f ns", ns);
    } else {
        std::snprintf(text, sizeof text, "%.2f us", ns / 1000);
    }
    return text;
}

std::string formatRate(double bytes, double ns) {
    if (bytes <= 0 || ns <= 0) {
        return "";
    }
    const double perSecond = bytes * 1e9 / ns;
    char text[32];
    if (perSecond >= 1e9) {
        std::snprintf(text, sizeof text, "%.2f GB/s", perSecond / 1e9);
    } else {
        std::snprintf(text, sizeof text, "%.0f MB/s", perSecond / 1e6);
    }
    return text;
}

std::string formatCount(double count) {
    if (count < 0) {
        return "";
    }
    char text[32];
    std::snprintf(text, sizeof text, count == std::floor(count) ? "%.0f" : "%.2f", count);
    return text;
}

}  // namespace

void Collector::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) {
            continue;
        }
        const std::string& name = run.run_name.function_name;
        auto [entry, added] = samples_.try_emplace(name);
        if (added) {
            entry->second.order = static_cast<long>(run.family_index);
        }
        // The runs are reported in nanoseconds: every benchmark here keeps the default unit.
        entry->second.cpu.push_back(run.GetAdjustedCPUTime());
        entry->second.wall.push_back(run.GetAdjustedRealTime());
        if (auto bytes = run.counters.find("bytes"); bytes != run.counters.end()) {
            entry->second.bytes = bytes->second.value;
        }
    }
}

std::vector<Row> Collector::rows() const {
    std::vector<std::pair<long, Row>> ordered;
    for (const auto& [name, samples] : samples_) {
        Row row;
        row.name = name;
        row.cpuNs = median(samples.cpu);
        row.wallNs = median(samples.wall);
        row.cvPercent = spreadPercent(samples.cpu);
        row.bytes = samples.bytes;
        ordered.emplace_back(samples.order, row);
    }
    std::stable_sort(ordered.begin(), ordered.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Row> result;
    for (auto& entry : ordered) {
        result.push_back(std::move(entry.second));
    }
    return result;
}

void writeRows(const std::vector<Row>& rows, std::ostream& out) {
    for (const Row& row : rows) {
        out << row.name << '\t' << row.cpuNs << '\t' << row.wallNs << '\t' << row.cvPercent << '\t'
            << row.bytes << '\t' << row.allocations << '\n';
    }
}

std::vector<Row> readRows(std::istream& in) {
    std::vector<Row> rows;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        Row row;
        if (std::getline(fields, row.name, '\t') &&
            fields >> row.cpuNs >> row.wallNs >> row.cvPercent >> row.bytes >> row.allocations) {
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

void printTable(const std::vector<Row>& rows, std::ostream& out) {
    std::size_t width = 9;
    for (const Row& row : rows) {
        width = std::max(width, row.name.size());
    }
    char line[256];
    std::snprintf(line, sizeof line, "%-*s %12s %12s %7s %12s %7s\n", static_cast<int>(width),
                  "benchmark", "cpu/op", "wall/op", "cv", "throughput", "new/op");
    out << line << std::string(width + 56, '-') << '\n';
    for (const Row& row : rows) {
        char spread[16];
        std::snprintf(spread, sizeof spread, "%.1f%%", row.cvPercent);
        std::snprintf(
            line, sizeof line, "%-*s %12s %12s %7s %12s %7s\n", static_cast<int>(width),
            row.name.c_str(), formatTime(row.cpuNs).c_str(), formatTime(row.wallNs).c_str(), spread,
            formatRate(row.bytes, row.cpuNs).c_str(), formatCount(row.allocations).c_str());
        out << line;
    }
}

bool initialize(int argc, char** argv, const std::map<std::string, std::string*>& own) {
    std::vector<char*> arguments;
    for (int i = 0; i < argc; ++i) {
        const std::string argument = argv[i];
        bool taken = false;
        for (const auto& [key, value] : own) {
            if (argument.compare(0, key.size(), key) == 0) {
                *value = argument.substr(key.size());
                taken = true;
            }
        }
        if (!taken) {
            arguments.push_back(argv[i]);
        }
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    return !benchmark::ReportUnrecognizedArguments(count, arguments.data());
}

}  // namespace spf_bench
