// The plot of the runs' exchanges per second against concurrent slots, as an
// SVG picture: one panel per kind of exchange, the bus limits beside the
// measured and the modelled figure of each run.
#pragma once

#include <string>
#include <vector>

#include "bench/scenarios.h"

namespace bench {

std::string exchangesPlot(const std::vector<Run>& runs);

}  // namespace bench
