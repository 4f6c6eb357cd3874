#include "bench/report_text.h"

#include <cstdarg>
#include <cstdio>

namespace report_text {

std::string fmt(const char* format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

std::string percent(double part, double whole) { return whole > 0 ? fmt("%.0f%%", part / whole * 100.0) : "-"; }

const char* verdict(bool met) { return met ? "met" : "**not met**"; }

}  // namespace report_text
