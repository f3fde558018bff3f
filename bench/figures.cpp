#include "bench/figures.hpp"

#include <algorithm>
#include <cstdio>

namespace KX::bench {

void Collector::ReportRuns(std::vector<Run> const& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (Run const& run : runs) {
    if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
    std::string name = run.run_name.str();
    name = name.substr(0, name.find("/repeats:"));
    mNumbers[name].push_back(run.GetAdjustedRealTime());
    for (auto const& [counter, value] : run.counters) {
      mNumbers[name + ":" + counter].push_back(value.value);
    }
  }
}

bool Collector::find(std::string const& name, double& number) {
  auto const found = mNumbers.find(name);
  if (found == mNumbers.end()) return false;
  std::vector<double>& numbers = found->second;
  std::sort(numbers.begin(), numbers.end());
  number = numbers[numbers.size() / 2];
  return true;
}

namespace {

void printFigure(Collector& collector, Figure const& figure) {
  double ours = 0;
  if (!collector.find(figure.ours, ours)) return;
  double floor = 0;
  if (*figure.floor == '\0') {
    std::printf("| %-52s | %10.1f %-2s |               |       | %6.6g %-2s | %6.6g %-2s |\n",
                figure.text, ours, figure.unit, figure.must, figure.unit, figure.aim, figure.unit);
  } else if (collector.find(figure.floor, floor)) {
    std::printf("| %-52s | %10.1f %-2s | %10.1f %-2s | %5.2f | %7.1f x | %7.1f x |\n", figure.text,
                ours, figure.unit, floor, figure.unit, ours / floor, figure.must, figure.aim);
  }
}

}  // namespace

bool runBenchmarks(int argc, char** argv, Collector& collector) {
  // Ours and the floor take turns, several times, so that both meet the same moods of the machine.
  std::vector<std::string> defaults = {argv[0], "--benchmark_repetitions=5",
                                       "--benchmark_min_time=0.2",
                                       "--benchmark_enable_random_interleaving=true"};
  std::vector<char*> arguments;
  for (std::string& text : defaults) arguments.push_back(text.data());
  for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);  // a later one overrides
  argc = static_cast<int>(arguments.size());
  argv = arguments.data();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return false;
  benchmark::RunSpecifiedBenchmarks(&collector);
  return true;
}

void printTable(Collector& collector, std::span<Figure const> figures) {
  std::printf("| %-52s | %-13s | %-13s | ratio | %-9s | %-9s |\n|---|---|---|---|---|---|\n",
              "figure", "ours", "floor", "must", "aim");
  for (Figure const& figure : figures) printFigure(collector, figure);
}

}  // namespace KX::bench
