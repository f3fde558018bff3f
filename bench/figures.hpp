// From benchmarks to one table: figure, ours, floor, ratio, and what is demanded.
#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace KX::bench {

/// A line of the table. A name is a benchmark's, or BENCHMARK:COUNTER.
struct Figure {
  char const* text;
  char const* unit;
  char const* ours;
  char const* floor;  // empty: `must` and `aim` are not ratios but in the unit
  double must;
  double aim;
};

/// Collects every measured number by its name; the median where a benchmark was repeated.
class Collector : public benchmark::ConsoleReporter {
 public:
  Collector() : ConsoleReporter(OO_None) { SetOutputStream(&GetErrorStream()); }

  void ReportRuns(std::vector<Run> const& runs) override;

  /// False if it was not measured.
  bool find(std::string const& name, double& number);

 private:
  std::map<std::string, std::vector<double>> mNumbers;
};

/// Runs what the options of Google Benchmark say; false if they are wrong.
bool runBenchmarks(int argc, char** argv, Collector& collector);
/// Figures that were not measured are left out.
void printTable(Collector& collector, std::span<Figure const> figures);

}  // namespace KX::bench
