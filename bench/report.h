#pragma once

#include <string>

namespace bench {

void PrintHeader();

/// Prints a figure beside its floor, and the most that their ratio may be. True when the ratio keeps to it.
bool PrintRow(const std::string& figure, double ours, double floor, double bound);

}  // namespace bench
