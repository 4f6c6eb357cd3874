#include "bench/exchanges_plot.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <utility>

namespace bench {

using bus_model::Shape;
using report_text::fmt;

namespace {

struct Series {
    std::string label;
    std::string color;
    std::string dash;  // stroke-dasharray, empty for solid
    bool markers = false;
    std::vector<std::pair<double, double>> points;  // (threads, exchanges/s)
    double width = 0;  // stroke width; 0: 2.5 with markers, else 1.5
};

struct Panel {
    std::string title;
    std::vector<Series> series;  // the same labels and styles in every panel
};

// Panels side by side on one log-log scale, with one legend for all.
std::string svgPlot(const std::vector<Panel>& panels, const std::string& title)
{
    const double left = 70, gap = 40, panelW = 330, legendW = 270, top = 70, plotH = 340, bottom = 60;
    const double width = left + panels.size() * panelW + (panels.size() - 1) * gap + legendW;
    const double height = top + plotH + bottom;
    double lo = 1e9, hi = 0, xMax = 1;
    for (const Panel& panel : panels)
        for (const Series& s : panel.series)
            for (auto& p : s.points) {
                lo = std::min(lo, p.second);
                hi = std::max(hi, p.second);
                xMax = std::max(xMax, p.first);
            }
    // The range runs between steps of 1, 2 and 5 per decade.
    auto stepBelow = [](double v) {
        double decade = std::pow(10.0, std::floor(std::log10(v)));
        for (double m : {5.0, 2.0, 1.0})
            if (decade * m <= v) return decade * m;
        return decade;
    };
    auto stepAbove = [](double v) {
        double decade = std::pow(10.0, std::floor(std::log10(v)));
        for (double m : {1.0, 2.0, 5.0, 10.0})
            if (decade * m >= v) return decade * m;
        return decade * 10;
    };
    double yLo = stepBelow(std::max(lo, 1e-3) / 1.2);
    double yHi = stepAbove(hi * 1.2);
    double xSpan = std::log2(xMax);
    auto Y = [&](double rate) {
        return top + plotH - (std::log10(rate) - std::log10(yLo)) / (std::log10(yHi) - std::log10(yLo)) * plotH;
    };
    std::ostringstream o;
    o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" viewBox=\"0 0 " << width << ' ' << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
    o << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    o << "<text x=\"" << left << "\" y=\"24\" font-size=\"14\" font-weight=\"bold\">" << title << "</text>\n";
    auto stroke = [&](const Series& s) {
        double w = s.width > 0 ? s.width : s.markers ? 2.5 : 1.5;
        std::string a = " stroke=\"" + s.color + "\" stroke-width=\"" + fmt("%g", w) + "\"";
        if (!s.dash.empty()) a += " stroke-dasharray=\"" + s.dash + "\"";
        return a;
    };
    for (size_t k = 0; k < panels.size(); ++k) {
        const double x0 = left + static_cast<double>(k) * (panelW + gap);
        auto X = [&](double threads) { return x0 + (xSpan > 0 ? std::log2(threads) / xSpan : 0) * panelW; };
        o << "<text x=\"" << x0 + panelW / 2 << "\" y=\"" << top - 10 << "\" text-anchor=\"middle\" font-weight=\"bold\">"
          << panels[k].title << "</text>\n";
        // Grid and axes: 1, 2, 5 per decade.
        for (double decade = std::pow(10.0, std::floor(std::log10(yLo))); decade < yHi * 1.001; decade *= 10)
            for (double m : {1.0, 2.0, 5.0}) {
                double v = decade * m;
                if (v < yLo * 0.999 || v > yHi * 1.001) continue;
                double y = Y(v);
                o << "<line x1=\"" << x0 << "\" x2=\"" << x0 + panelW << "\" y1=\"" << y << "\" y2=\"" << y
                  << "\" stroke=\"#ddd\"/>\n";
                o << "<text x=\"" << x0 - 6 << "\" y=\"" << y + 4 << "\" text-anchor=\"end\">" << fmt("%g", v)
                  << "</text>\n";
            }
        for (double n = 1; n <= xMax * 1.001; n *= 2) {
            double x = X(n);
            o << "<line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << top << "\" y2=\"" << top + plotH
              << "\" stroke=\"#eee\"/>\n";
            o << "<text x=\"" << x << "\" y=\"" << top + plotH + 18 << "\" text-anchor=\"middle\">" << n << "</text>\n";
        }
        o << "<rect x=\"" << x0 << "\" y=\"" << top << "\" width=\"" << panelW << "\" height=\"" << plotH
          << "\" fill=\"none\" stroke=\"#444\"/>\n";
        o << "<text x=\"" << x0 + panelW / 2 << "\" y=\"" << height - 18
          << "\" text-anchor=\"middle\">concurrent slots (host threads, one rack)</text>\n";
        for (const Series& s : panels[k].series) {
            o << "<polyline fill=\"none\"" << stroke(s) << " points=\"";
            for (auto& p : s.points) o << X(p.first) << ',' << Y(p.second) << ' ';
            o << "\"/>\n";
            if (s.markers)
                for (auto& p : s.points)
                    o << "<circle cx=\"" << X(p.first) << "\" cy=\"" << Y(p.second) << "\" r=\"4\" fill=\"" << s.color
                      << "\"/>\n";
        }
    }
    o << "<text transform=\"translate(18," << top + plotH / 2
      << ") rotate(-90)\" text-anchor=\"middle\">exchanges per second (log scale)</text>\n";
    double legendY = top + 6;
    const double lx = width - legendW + 14;
    if (!panels.empty())
        for (const Series& s : panels[0].series) {
            o << "<line x1=\"" << lx << "\" x2=\"" << lx + 26 << "\" y1=\"" << legendY << "\" y2=\"" << legendY << "\""
              << stroke(s) << "/>\n";
            if (s.markers) o << "<circle cx=\"" << lx + 13 << "\" cy=\"" << legendY << "\" r=\"4\" fill=\"" << s.color << "\"/>\n";
            o << "<text x=\"" << lx + 32 << "\" y=\"" << legendY + 4 << "\">" << s.label << "</text>\n";
            legendY += 20;
        }
    o << "</svg>\n";
    return o.str();
}

}  // namespace

std::string exchangesPlot(const std::vector<Run>& runs)
{
    const char* colors[] = {"#1f5fa8", "#c2571a", "#2a8a3a", "#7a3fa0"};
    std::vector<Panel> panels;
    for (const std::vector<Throughput> Run::*which : {&Run::shortRuns, &Run::longRuns}) {
        const std::vector<Throughput>& first = runs[0].*which;
        if (first.empty()) continue;
        const Shape& shape = first[0].shape;
        Panel panel{shape.name, {}};
        Series bus{"bus (wire, one message at a time)", "#555", "8,4", false, {}};
        // Broad and light, so that a figure lying on it stays visible.
        Series busPoll{"bus + 5 ms poll", "#bbb", "", false, {}, 7};
        for (const Throughput& t : first) {
            bus.points.push_back({static_cast<double>(t.threads), shape.busRate(t.threads)});
            busPoll.points.push_back({static_cast<double>(t.threads), shape.busPollRate(t.threads)});
        }
        panel.series.push_back(bus);
        panel.series.push_back(busPoll);
        for (size_t k = 0; k < runs.size(); ++k) {
            const Run& run = runs[k];
            std::string color = colors[k % 4];
            Series measured{"measured, " + run.label(), color, "", true, {}};
            Series device{"device model, " + run.label(), color, "10,3,2,3", false, {}};
            for (const Throughput& t : run.*which) {
                measured.points.push_back({static_cast<double>(t.threads), std::max(t.rate, 0.1)});
                device.points.push_back({static_cast<double>(t.threads), shape.deviceRate(t.threads, run.timerMs)});
            }
            panel.series.push_back(measured);
            panel.series.push_back(device);
        }
        panels.push_back(panel);
    }
    return svgPlot(panels, "Exchanges per second against concurrent slots, wire pacing on");
}

}  // namespace bench
