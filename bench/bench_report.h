// The report's text: Markdown tables that set the scenarios' figures beside
// the bus model's limits and the targets, each with its verdict. The whole
// report, and the partial ones the runner writes when asked for one family.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "bench/scenarios.h"

namespace bench {

// When and on what the figures were taken, for a report's first lines.
struct RunStamp {
    std::string when;
    std::string host;
    bool quick = false;
};

// Everything: the runs per timer setting and the trace entries, followed by
// the links and the connections the caller appends.
std::string busLimitReport(const std::vector<Run>& runs, const Workload& w, const std::vector<TraceCost>& traces,
                           const RunStamp& stamp, double totalS);

std::string loadOnlyReport(const std::vector<Run>& runs, const Workload& w, const RunStamp& stamp);
std::string linksOnlyTitle(const RunStamp& stamp);
std::string linkComparisonReport(const std::vector<LinkMeasurement>& links);
std::string connectionReport(const ConnectionCosts& c);
std::string connectionsOnlyReport(const ConnectionCosts& c, const RunStamp& stamp);
std::string farmOnlyReport(const FarmFigures& farm, const RunStamp& stamp);

// ---- Parts that both the whole report and a partial one write ---------------

// The head of a targets table: target, limit, one column per run, and what
// bounds it.
std::string targetsHeader(const std::vector<Run>& runs);

// Rows of the targets table for the waiting calls and the thread scaling.
void loadTargetRows(std::ostringstream& r, const std::vector<Run>& runs);

// The waiting calls and the thread scaling side by side with their targets.
std::string loadReport(const std::vector<Run>& runs, const Workload& w);

}  // namespace bench
