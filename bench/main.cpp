// The main program of every benchmark: Google Benchmark's, with a table at the end. The table goes to the
// file that BENCH_TABLE names, too.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "table.h"

namespace bench {
namespace {

std::vector<Row>& TableRows() {
  static std::vector<Row> rows;
  return rows;
}

// Prints as usual, and keeps the smallest of each figure.
class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  KeepingReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;  // the median of several repetitions, or the only one
    for (const Run& run : runs) {
      if (run.error_occurred || run.repetitions < 2 || run.aggregate_name == "median") shown.push_back(run);
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.benchmark_name();
      if (const std::size_t repeats = name.find("/repeats:"); repeats != std::string::npos)
        name.erase(repeats);
      const auto iterations = static_cast<double>(run.iterations);
      Keep(name, run.cpu_accumulated_time * 1e9 / iterations);
      for (const auto& [counter, value] : run.counters) Keep(name + ": " + counter, value);
    }
    if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  }

  [[nodiscard]] std::optional<double> Find(const char* name) const {
    if (name == nullptr) return std::nullopt;
    const auto found = m_figures.find(name);
    return found == m_figures.end() ? std::nullopt : std::optional(found->second);
  }

 private:
  void Keep(const std::string& name, double value) {
    const auto [kept, isNew] = m_figures.emplace(name, value);
    if (!isNew && value < kept->second) kept->second = value;
  }

  std::map<std::string, double> m_figures;
};

std::string Shown(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value);
  return text;
}

// "1.10 of 1.30 allowed": empty when there is no baseline.
std::string ShownRatio(const Row& row, double ours, std::optional<double> baseline) {
  if (!baseline || *baseline == 0) return "";
  std::string text = Shown(ours / *baseline) + " times";
  if (row.allowedRatio != 0) text += " (allowed: " + Shown(row.allowedRatio) + ")";
  return text;
}

void PrintTable(const KeepingReporter& figures, std::FILE* file) {
  for (const Row& row : TableRows()) {
    const std::optional<double> found = figures.Find(row.ours);
    if (!found) continue;
    const double ours = *found / row.scale;
    std::optional<double> baseline = figures.Find(row.baseline);
    if (baseline) *baseline /= row.scale;
    std::string figure = Shown(ours) + " " + row.unit;
    if (row.allowed != 0) figure += " (allowed: " + Shown(row.allowed) + ")";
    std::fprintf(file, "%-44s %-30s %-24s", row.what, figure.c_str(),
                 ShownRatio(row, ours, baseline).c_str());
    if (baseline) std::fprintf(file, " %s: %s %s", row.baselineIs, Shown(*baseline).c_str(), row.unit);
    std::fputc('\n', file);
  }
}

}  // namespace

void Row::Add(const Row& row) {
  TableRows().push_back(row);
}

}  // namespace bench

int main(int argc, char** argv) {
  // Repeated in turns, so that a disturbance hits a figure and its baseline alike. Options of the caller come
  // behind these, and win.
  std::vector<std::string> options = {argv[0], "--benchmark_repetitions=5",
                                      "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_min_time=0.1"};
  options.insert(options.end(), argv + 1, argv + argc);
  std::vector<char*> arguments;
  for (std::string& option : options) arguments.push_back(option.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  bench::KeepingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  bench::PrintTable(reporter, stdout);
  if (const char* const path = std::getenv("BENCH_TABLE"); path != nullptr) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "a"), &std::fclose);
    if (!file) {
      std::perror(path);
      return 1;
    }
    bench::PrintTable(reporter, file.get());
  }
  return 0;
}
