#include "bench/table.h"

#include <cstdio>

namespace bench {
namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

std::string Number(const char* format, double value) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string GoalText(const Row& row) {
    switch (row.goal) {
        case Goal::kRatioBelow:
            return Number("under %.2f", row.limit);
        case Goal::kSpeedupAbove:
            return Number("over %.2f", row.limit);
        case Goal::kTimeBelow:
            return Number("under %.0f us", row.limit);
        case Goal::kFigureBelow:
            return Number("under %.2f", row.limit);
        case Goal::kReported:
        case Goal::kSpeedupReported:
        case Goal::kRateReported:
        case Goal::kFigureReported:
            break;
    }
    return "-";
}

/// The figure that is held against the goal, or shown.
double Figure(const Row& row, double ours, double peer) {
    switch (row.goal) {
        case Goal::kTimeBelow:
            return ours;
        case Goal::kSpeedupAbove:
        case Goal::kSpeedupReported:
            return peer / ours;
        case Goal::kRateReported:
            return kMicrosecondsPerSecond / ours;
        default:
            return peer > 0 ? ours / peer : 0;
    }
}

bool HasGoal(const Row& row) {
    return GoalText(row) != "-";
}

bool Met(const Row& row, double figure) {
    if (!HasGoal(row)) return true;
    return row.goal == Goal::kSpeedupAbove ? figure > row.limit : figure < row.limit;
}

}  // namespace

void Medians::ReportRuns(const std::vector<Run>& runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
        if (run.error_occurred) failed_.insert(run.run_name.function_name);
        if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
        const double seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
        microseconds_[run.run_name.function_name] = seconds * kMicrosecondsPerSecond;
        const auto figure = run.counters.find("figure");
        if (figure != run.counters.end()) figures_[run.run_name.function_name] = figure->second.value;
    }
}

double Medians::Microseconds(const std::string& name) const {
    const auto found = microseconds_.find(name);
    return found == microseconds_.end() ? 0 : found->second;
}

double Medians::Figure(const std::string& name) const {
    const auto found = figures_.find(name);
    return found == figures_.end() ? 0 : found->second;
}

int PrintTable(const std::vector<Row>& rows, const Medians& medians) {
    int missed = 0;
    std::printf("\n%-58s %12s %12s %7s  %-14s\n", "what", "ours (us)", "peer (us)", "figure", "goal");
    for (const Row& row : rows) {
        const double ours = medians.Microseconds(row.ours);
        const double peer = medians.Microseconds(row.peer);
        if (medians.Failed(row.ours) || medians.Failed(row.peer)) {
            ++missed;
            std::printf("%-58s FAILED\n", row.what.c_str());
            continue;
        }
        if (ours <= 0) continue;
        const bool own_figure = row.goal == Goal::kFigureBelow || row.goal == Goal::kFigureReported;
        const double figure = own_figure ? medians.Figure(row.ours) : Figure(row, ours, peer);
        const bool shows_figure = peer > 0 || own_figure || row.goal == Goal::kRateReported;
        const bool met = Met(row, figure);
        if (!met) ++missed;
        std::printf("%-58s %12s %12s %7s  %-14s %s\n", row.what.c_str(), Number("%.1f", ours).c_str(),
                    peer > 0 ? Number("%.1f", peer).c_str() : "-", shows_figure ? Number("%.2f", figure).c_str() : "-",
                    GoalText(row).c_str(),
                    !HasGoal(row) ? ""
                    : met         ? "met"
                                  : "MISSED");
    }
    return missed;
}

}  // namespace bench
