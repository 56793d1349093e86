#pragma once

#include <map>
#include <string>

namespace bench {

/// What the ratio of a figure to its floor has to keep to.
struct Goal {
  enum class Kind { kNone, kAtMost, kAtLeast, kExactly } kind = Kind::kNone;
  double bound = 0;
};

inline Goal AtMost(double bound) { return {Goal::Kind::kAtMost, bound}; }
inline Goal AtLeast(double bound) { return {Goal::Kind::kAtLeast, bound}; }
inline Goal Exactly(double bound) { return {Goal::Kind::kExactly, bound}; }

void PrintHeader();
void PrintRow(const std::string& figure, double ours, double floor, const Goal& goal = {});

/// Medians over a benchmark's repetitions.
struct Timing {
  double microseconds = 0;
  double items_per_second = 0;
};

/// Runs all registered benchmarks, their repetitions shuffled among each other, so that what slows the machine
/// for a while slows both sides of a ratio. Keyed by name.
std::map<std::string, Timing> RunInterleaved();

}  // namespace bench
