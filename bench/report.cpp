#include "report.h"

#include <cstdio>

namespace bench {

void PrintHeader() { std::printf("%-50s %10s %10s %7s %8s\n", "figure", "ours", "floor", "ratio", "at most"); }

bool PrintRow(const std::string& figure, double ours, double floor, double bound) {
  const double ratio = ours / floor;
  const bool holds = ratio <= bound;
  std::printf("%-50s %10.0f %10.0f %7.3f %8.2f  %s\n", figure.c_str(), ours, floor, ratio, bound,
              holds ? "holds" : "exceeded");
  return holds;
}

}  // namespace bench
