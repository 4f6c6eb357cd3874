// Text helpers of the benchmarks' reports, the same in both forms.
#pragma once

#include <string>

namespace report_text {

// printf into a string; a report cell is never longer than 511 characters.
std::string fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

// part as a whole percentage of whole, "-" where there is no whole.
std::string percent(double part, double whole);

// A target's verdict as the reports write it: "met", or "not met" in bold.
const char* verdict(bool met);

}  // namespace report_text
