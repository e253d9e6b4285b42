// CPU cost of the library's own work, without the bus (Google Benchmark).
#ifndef UOZ_BENCH_MICRO_H
#define UOZ_BENCH_MICRO_H

#include <string>

#include "bench_util.h"

namespace uozbench {

// Runs the micro benchmarks on the ECUs of config_path and adds their figures
// to the report.
void run_micro_benchmarks(const std::string &config_path, Report &report);

}  // namespace uozbench

#endif
