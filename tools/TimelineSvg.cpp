// The timeline's picture: rows of ticks (calls, uploads) and step lines
// (counters), labelled on the left, over one time axis.
#include <stdio.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <vector>

#include "tools/Timeline.h"

using nlohmann::json;

namespace vymm {

namespace {

constexpr double kLabelWidth = 300;
constexpr double kPlotWidth = 660;
constexpr double kRowHeight = 22;
constexpr double kTop = 30;

struct Point {
    double ts;
    double value;
    bool refused;
};

struct Row {
    std::string label;
    bool counter;
    std::vector<Point> points;
};

std::string Escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '&': out += "&amp;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

std::string Number(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f", value);
    return text;
}

// Call tracks by thread id, then the uploads' track, then each counter series
// in the order it first appears.
std::vector<Row> Rows(const json& trace) {
    std::map<int, Row> tracks;
    std::vector<Row> counters;
    std::map<std::string, size_t> counterIndex;
    for (const json& event : trace) {
        const std::string ph = event.value("ph", "");
        const int tid = event.value("tid", 0);
        const double ts = event.value("ts", 0.0);
        if (ph == "M" && event.value("name", "") == "thread_name") {
            tracks[tid].label = event["args"].value("name", "");
        } else if (ph == "i") {
            tracks[tid].points.push_back({ts, 0, event["args"].value("refused", false)});
        } else if (ph == "C") {
            for (const auto& [key, value] : event["args"].items()) {
                const std::string label = event.value("name", "") + " " + key;
                const auto [it, added] = counterIndex.emplace(label, counters.size());
                if (added) {
                    counters.push_back({label, true, {}});
                }
                counters[it->second].points.push_back({ts, value.get<double>(), false});
            }
        }
    }
    std::vector<Row> rows;
    for (auto& [tid, row] : tracks) {
        rows.push_back(std::move(row));
    }
    // A counter that never left 0 (drops that did not happen) says nothing.
    std::copy_if(counters.begin(), counters.end(), std::back_inserter(rows), [](const Row& row) {
        return std::any_of(row.points.begin(), row.points.end(),
                           [](const Point& point) { return point.value != 0; });
    });
    return rows;
}

double TickStep(double seconds) {
    for (double step : {0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 30.0, 60.0, 300.0, 600.0}) {
        if (seconds / step <= 10) {
            return step;
        }
    }
    return 3600;
}

class Picture {
public:
    Picture(double endTs, size_t rows) : mEnd(std::max(endTs, 1.0)), mRows(rows) {}

    double X(double ts) const { return kLabelWidth + ts / mEnd * kPlotWidth; }
    double Y(size_t row) const { return kTop + static_cast<double>(row) * kRowHeight; }

    std::string Axis() const {
        const double bottom = Y(mRows) + 4;
        const double step = TickStep(mEnd / 1e6);
        std::string out;
        for (double s = 0; s * 1e6 <= mEnd; s += step) {
            const std::string x = Number(X(s * 1e6));
            out += "<line x1=\"" + x + "\" y1=\"" + Number(kTop - 6) + "\" x2=\"" + x +
                   "\" y2=\"" + Number(bottom) + "\" stroke=\"#ddd\"/>\n";
            out += "<text x=\"" + x + "\" y=\"" + Number(bottom + 14) +
                   "\" text-anchor=\"middle\">" + Number(s) + " s</text>\n";
        }
        return out;
    }

    std::string Draw(const Row& row, size_t index) const {
        const double y = Y(index);
        std::string out = "<text x=\"" + Number(kLabelWidth - 8) + "\" y=\"" + Number(y + 15) +
                          "\" text-anchor=\"end\">" + Escaped(row.label) + "</text>\n";
        return out + (row.counter ? Steps(row, y) : Ticks(row, y));
    }

private:
    std::string Ticks(const Row& row, double y) const {
        std::string out;
        for (const Point& point : row.points) {
            const std::string x = Number(X(point.ts));
            out += "<line x1=\"" + x + "\" y1=\"" + Number(y + 4) + "\" x2=\"" + x + "\" y2=\"" +
                   Number(y + 18) + "\" stroke=\"" + (point.refused ? "#d33" : "#36c") + "\"/>\n";
        }
        return out;
    }

    // A step line from the row's lowest value (bottom) to its highest (top),
    // held to the end of the axis; the range is written after it.
    std::string Steps(const Row& row, double y) const {
        double low = row.points[0].value;
        double high = low;
        for (const Point& point : row.points) {
            low = std::min(low, point.value);
            high = std::max(high, point.value);
        }
        const auto level = [&](double value) {
            return Number(y + 18 - (high > low ? (value - low) / (high - low) * 14 : 7));
        };
        std::string path;
        for (size_t i = 0; i < row.points.size(); ++i) {
            const std::string x = Number(X(row.points[i].ts));
            path += (i == 0 ? "M" : " H") + x + (i == 0 ? " " : " V") +
                    level(row.points[i].value);
        }
        path += " H" + Number(X(mEnd));
        return "<path d=\"" + path + "\" fill=\"none\" stroke=\"#393\"/>\n<text x=\"" +
               Number(X(mEnd) + 6) + "\" y=\"" + Number(y + 15) + "\">" + Number(low) + "–" +
               Number(high) + "</text>\n";
    }

    const double mEnd;
    const size_t mRows;
};

}  // namespace

std::string TimelineSvg(const json& trace) {
    double end = 0;
    for (const json& event : trace) {
        end = std::max(end, event.value("ts", 0.0));
    }
    const std::vector<Row> rows = Rows(trace);
    const Picture picture(end, rows.size());
    const std::string width = Number(kLabelWidth + kPlotWidth + 90);
    const std::string height = Number(picture.Y(rows.size()) + 30);
    std::string out = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + width +
                      "\" height=\"" + height + "\" font-family=\"sans-serif\" font-size=\"12\">\n"
                      "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    out += picture.Axis();
    for (size_t i = 0; i < rows.size(); ++i) {
        out += picture.Draw(rows[i], i);
    }
    return out + "</svg>\n";
}

}  // namespace vymm
