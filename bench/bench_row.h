#ifndef MORVOCAT_BENCH_BENCH_ROW_H_
#define MORVOCAT_BENCH_BENCH_ROW_H_

// One row of the benchmark table that bench/run prints: our figure beside
// the reference tool's on the same work in the same run, their ratio
// (above 1 is better for us, whatever the unit) and the target.

#include <math.h>
#include <stdio.h>

namespace morvobench {

// reference and ratio may be NAN where no tool does the same work.
inline void PrintRow(const char* figure, const char* unit, double ours, double reference,
                     double ratio, const char* target) {
  printf("ROW\t%s\t%s\t%.4g\t", figure, unit, ours);
  if (isnan(reference))
    printf("-\t");
  else
    printf("%.4g\t", reference);
  if (isnan(ratio))
    printf("-\t");
  else
    printf("%.3f\t", ratio);
  printf("%s\n", target);
  fflush(stdout);
}

}  // namespace morvobench

#endif  // MORVOCAT_BENCH_BENCH_ROW_H_
