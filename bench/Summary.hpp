// One line per benchmark from the repetitions of a run: medians rather than means, because on a
// shared machine a few repetitions are always hit by someone else's work.
#ifndef SPF_BENCH_SUMMARY_HPP
#define SPF_BENCH_SUMMARY_HPP

#include <benchmark/benchmark.h>

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace spf_bench {

struct Row {
    std::string name;
    double cpuNs = 0;         // median CPU time (user + system) per iteration
    double wallNs = 0;        // median wall-clock time per iteration
    double cvPercent = 0;     // spread of the CPU times across repetitions
    double bytes = 0;         // bytes per iteration, for throughput rows
    double allocations = -1;  // operator new calls per iteration; negative when not counted
};

// Collects the repetitions of every benchmark and prints nothing while they run.
class Collector final : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override;

    // In registration order.
    std::vector<Row> rows() const;

private:
    struct Samples {
        long order = 0;
        std::vector<double> cpu;
        std::vector<double> wall;
        double bytes = 0;
    };
    std::map<std::string, Samples> samples_;
};

// Rows travel between the benchmark programs as tab-separated lines.
void writeRows(const std::vector<Row>& rows, std::ostream& out);
std::vector<Row> readRows(std::istream& in);

void printTable(const std::vector<Row>& rows, std::ostream& out);

// Takes this program's own "--key=value" options (each `key` must end in "=") into their
// strings and hands the rest to Google Benchmark. False when an argument is not understood.
bool initialize(int argc, char** argv, const std::map<std::string, std::string*>& own);

}  // namespace spf_bench

#endif
