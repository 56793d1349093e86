#include "report.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

namespace bench {
namespace {

std::string Format(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

std::string Number(double value) {
  return Format(value < 1000 && value != static_cast<int>(value) ? "%.2f" : "%.0f", value);
}

std::string Describe(const Goal& goal) {
  constexpr const char* kFormats[] = {"-", "<= %.2f", ">= %.2f", "= %.2f"};
  return Format(kFormats[static_cast<int>(goal.kind)], goal.bound);
}

const char* Judge(const Goal& goal, double ratio) {
  const bool kept[] = {true, ratio <= goal.bound, ratio >= goal.bound, ratio == goal.bound};
  if (goal.kind == Goal::Kind::kNone) return "-";
  return kept[static_cast<int>(goal.kind)] ? "met" : "NOT MET";
}

class Reporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name != "median") continue;
      Timing& timing = timings[run.run_name.function_name];
      timing.microseconds = run.GetAdjustedRealTime() * 1e6 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      const auto items = run.counters.find("items_per_second");
      if (items != run.counters.end()) timing.items_per_second = items->second;
    }
  }

  std::map<std::string, Timing> timings;
};

}  // namespace

void PrintHeader() { std::printf("%-52s %12s %12s %8s %9s  %s\n", "figure", "ours", "floor", "ratio", "goal", "met"); }

void PrintRow(const std::string& figure, double ours, double floor, const Goal& goal) {
  const double ratio = ours / floor;
  std::printf("%-52s %12s %12s %8.3f %9s  %s\n", figure.c_str(), Number(ours).c_str(), Number(floor).c_str(), ratio,
              Describe(goal).c_str(), Judge(goal, ratio));
}

std::map<std::string, Timing> RunInterleaved() {
  std::vector<std::string> arguments = {"bench", "--benchmark_enable_random_interleaving=true",
                                        "--benchmark_repetitions=11", "--benchmark_min_time=0.1"};
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  int argc = static_cast<int>(argv.size());
  benchmark::Initialize(&argc, argv.data());
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.timings;
}

}  // namespace bench
