// The table that a benchmark program ends with: each figure beside its baseline of the same run.
#pragma once

namespace bench {

// One line of it. A figure is named by its benchmark, and is the processor time of one iteration, in
// nanoseconds; or, as "benchmark name: counter name", a counter of it. Of several repetitions the smallest
// counts: what else the machine does only ever adds.
struct Row {
  const char* what;
  const char* unit;  // of both figures, behind the scale
  const char* ours;
  double scale = 1;  // both figures are divided by it
  const char* baseline = nullptr;
  const char* baselineIs = "";
  double allowedRatio = 0;  // 0: none is
  double allowed = 0;       // of our figure itself; 0: nothing is said

  // Adds the row to the program's table.
  static void Add(const Row& row);
};

// Adds rows before main runs.
struct Rows {
  template <class... R>
  explicit Rows(const R&... rows) {
    (Row::Add(rows), ...);
  }
};

}  // namespace bench
