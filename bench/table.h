// The table that the benchmarks end in: for each row our median, the peer's median of the same run, their ratio and
// the goal.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace bench {

enum class Goal : int {
    kRatioBelow,  // ours / peer must be under the limit
    kSpeedupAbove,  // peer / ours must be over the limit
    kTimeBelow,  // our time in microseconds must be under the limit
    kReported,  // no goal
    kSpeedupReported,  // no goal; what the machine gives
    kRateReported,  // no goal; how many a second
    kFigureBelow,  // the benchmark's own figure, its counter of that name, must be under the limit
    kFigureReported,
};

struct Row {
    std::string what;
    std::string ours;  // names of benchmarks
    std::string peer;  // may be empty
    Goal goal = Goal::kReported;
    double limit = 0;
};

/// Collects the medians of repeated benchmarks and prints the console report as usual.
class Medians : public benchmark::ConsoleReporter {
  public:
    Medians() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override;

    /// Median real time of one iteration, in microseconds; 0 when the benchmark did not run.
    double Microseconds(const std::string& name) const;
    /// The counter "figure" of a benchmark; 0 when it did not run.
    double Figure(const std::string& name) const;
    /// Whether it ran and could not do its work.
    bool Failed(const std::string& name) const { return failed_.count(name) != 0; }

  private:
    std::map<std::string, double> microseconds_;
    std::map<std::string, double> figures_;
    std::set<std::string> failed_;
};

/// Prints the rows whose benchmarks ran. Returns how many goals were missed or benchmarks failed.
int PrintTable(const std::vector<Row>& rows, const Medians& medians);

}  // namespace bench
