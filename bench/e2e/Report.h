// Report: every figure of a run. Each figure is written at once as one JSON
// line (so a run that fails half-way still leaves its raw data), and kept
// for the summary table, one row per scenario case and metric:
//
//   scenario | metric | median | [min..max] | baseline median | ratio
//
// where median, min and max are over the repetitions of the library's
// figure, and ratio is the library's median over the baseline's median,
// both from this run. Rows keep the order in which they first appear.
// Used from the main thread only.
#ifndef COMMSCHANNEL_BENCH_REPORT_H
#define COMMSCHANNEL_BENCH_REPORT_H

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

enum class Side { LIBRARY, BASELINE };

class Report {
public:
    Report();
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    // Opens (truncates) the JSON lines file. False when it cannot be written.
    bool open(const std::string& path);

    // Records one figure. id is the scenario letter, scenario the case
    // ("c plain 64 B"), metric its name with unit ("median us").
    void add(const std::string& id, const std::string& scenario, const std::string& metric, Side side, int rep,
             double value);

    void printTable(std::FILE* out) const;

private:
    struct Row {
        std::string scenario;
        std::string metric;
        std::vector<double> library;
        std::vector<double> baseline;
    };
    Row& row(const std::string& scenario, const std::string& metric);

    std::vector<Row> m_rows;
    std::FILE* m_json;
};

}  // namespace bench

#endif
