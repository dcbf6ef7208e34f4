// The summary table and the JSON lines; see Report.h.
#include "Report.h"

#include "Stats.h"

#include <cmath>
#include <ctime>

namespace bench {

namespace {

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// Figures span nanoseconds to millions per second: three significant
// digits, without an exponent.
std::string number(double value)
{
    char text[64];
    const double magnitude = std::fabs(value);
    if (magnitude >= 1000 || value == 0) {
        std::snprintf(text, sizeof text, "%.0f", value);
    } else if (magnitude >= 100) {
        std::snprintf(text, sizeof text, "%.1f", value);
    } else if (magnitude >= 1) {
        std::snprintf(text, sizeof text, "%.2f", value);
    } else {
        std::snprintf(text, sizeof text, "%.3g", value);
    }
    return text;
}

}  // namespace

Report::Report() : m_json(nullptr) {}

Report::~Report()
{
    if (m_json != nullptr) {
        std::fclose(m_json);
    }
}

bool Report::open(const std::string& path)
{
    m_json = std::fopen(path.c_str(), "w");
    return m_json != nullptr;
}

Report::Row& Report::row(const std::string& scenario, const std::string& metric)
{
    for (Row& r : m_rows) {
        if (r.scenario == scenario && r.metric == metric) {
            return r;
        }
    }
    m_rows.push_back(Row{scenario, metric, {}, {}});
    return m_rows.back();
}

void Report::add(const std::string& id, const std::string& scenario, const std::string& metric, Side side,
                 int rep, double value)
{
    Row& r = row(scenario, metric);
    (side == Side::LIBRARY ? r.library : r.baseline).push_back(value);
    if (m_json == nullptr) {
        return;
    }
    std::fprintf(m_json,
                 "{\"id\":%s,\"scenario\":%s,\"metric\":%s,\"side\":%s,\"rep\":%d,\"value\":%.6g,\"time\":%ld}\n",
                 jsonString(id).c_str(), jsonString(scenario).c_str(), jsonString(metric).c_str(),
                 side == Side::LIBRARY ? "\"library\"" : "\"baseline\"", rep, value,
                 static_cast<long>(std::time(nullptr)));
    std::fflush(m_json);
}

void Report::printTable(std::FILE* out) const
{
    std::size_t scenarioWidth = 8;
    std::size_t metricWidth = 6;
    for (const Row& r : m_rows) {
        scenarioWidth = std::max(scenarioWidth, r.scenario.size());
        metricWidth = std::max(metricWidth, r.metric.size());
    }
    const int sw = static_cast<int>(scenarioWidth);
    const int mw = static_cast<int>(metricWidth);
    std::fprintf(out, "%-*s  %-*s  %10s  %-23s  %10s  %8s\n", sw, "scenario", mw, "metric", "median",
                 "[min..max]", "baseline", "ratio");
    for (const Row& r : m_rows) {
        const std::string libraryMedian = r.library.empty() ? "-" : number(median(r.library));
        const std::string range = r.library.empty()
                                      ? "-"
                                      : "[" + number(minimum(r.library)) + ".." + number(maximum(r.library)) + "]";
        const std::string baselineMedian = r.baseline.empty() ? "-" : number(median(r.baseline));
        std::string ratio = "-";
        if (!r.library.empty() && !r.baseline.empty() && median(r.baseline) != 0) {
            ratio = number(median(r.library) / median(r.baseline));
        }
        std::fprintf(out, "%-*s  %-*s  %10s  %-23s  %10s  %8s\n", sw, r.scenario.c_str(), mw, r.metric.c_str(),
                     libraryMedian.c_str(), range.c_str(), baselineMedian.c_str(), ratio.c_str());
    }
}

}  // namespace bench
