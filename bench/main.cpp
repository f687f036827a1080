// Runs every benchmark, then prints for each group how the peers' times
// compare with ours.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <map>
#include <string>
#include <vector>

#include "qk/qkcommon.h"

namespace {

struct Entry {
    std::string implementation;
    double nanoseconds;
};

class CompareReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            std::string name = run.benchmark_name();
            size_t bar = name.find('|');
            if (bar == std::string::npos) continue;
            size_t end = name.find('/', bar);
            std::string implementation =
                name.substr(bar + 1, end == std::string::npos ? std::string::npos : end - bar - 1);
            std::string group =
                name.substr(0, bar) + (end == std::string::npos ? "" : name.substr(end));
            if (groups_.find(group) == groups_.end()) order_.push_back(group);
            groups_[group].push_back({implementation, run.GetAdjustedRealTime()});
        }
    }

    void PrintComparison() const {
        printf("\n%-48s %-22s %12s %12s %8s\n", "comparison", "peer", "qk", "peer", "peer/qk");
        for (const std::string &group : order_) {
            const std::vector<Entry> &entries = groups_.at(group);
            const Entry *ours = nullptr;
            for (const Entry &e : entries) {
                if (e.implementation == "qk") ours = &e;
            }
            if (!ours) continue;
            for (const Entry &e : entries) {
                if (&e == ours) continue;
                printf("%-48s %-22s %12.1f %12.1f %8.2f\n", group.c_str(), e.implementation.c_str(),
                       ours->nanoseconds, e.nanoseconds, e.nanoseconds / ours->nanoseconds);
            }
        }
    }

  private:
    std::map<std::string, std::vector<Entry>> groups_;
    std::vector<std::string> order_;
};

}  // namespace

int main(int argc, char **argv) {
    QKLibInit("qkbench");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CompareReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintComparison();
    benchmark::Shutdown();
    return 0;
}
