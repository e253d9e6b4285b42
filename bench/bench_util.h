// Figures, the report table and the ECU configurations of the benchmarks.
#ifndef UOZ_BENCH_BENCH_UTIL_H
#define UOZ_BENCH_BENCH_UTIL_H

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace uozbench {

struct Summary {
    double min_us = 0;
    double median_us = 0;
    double p99_us = 0;
    double max_us = 0;
    size_t count = 0;
};

Summary summarize(std::vector<double> samples);

// CPU time in milliseconds: of the whole machine (busy and stolen by the
// hypervisor), of this process and of the broker. What is left went to other
// programs; it tells a slow run from a busy machine.
struct CpuTimes {
    double machine_busy_ms = 0;
    double stolen_ms = 0;
    double own_ms = 0;
    double broker_ms = 0;
};
CpuTimes cpu_times(pid_t broker);

// One row of the report: a figure, its unit, and its ratio to an anchor or
// its goal where there is one.
struct Row {
    std::string name;
    std::string figure;
    std::string comparison;
    std::string json_key;
    double value = 0;
    double ratio = 0;  // 0 when there is none
};

class Report {
  public:
    void add_latency(const std::string &name, const Summary &summary, const Summary &anchor);
    void add_rate(const std::string &name, double per_second, double anchor_per_second);
    void add_memory(const std::string &name, long bytes);
    void add_cpu(const std::string &name, double nanoseconds, double goal_nanoseconds);
    // CPU time as a multiple of a floor measured in the same run, against a
    // goal multiple: machines that differ in speed still compare.
    void add_cpu_over_floor(const std::string &name, double nanoseconds, double floor_nanoseconds,
                            double goal_ratio);
    // What other programs and the hypervisor took while a figure was measured.
    void add_other_load(const std::string &name, const CpuTimes &before, const CpuTimes &after,
                        double seconds);
    // Remembers the resident size of a handle with `ecus` ECUs, for the
    // per-ECU figure.
    void note_handle_memory(int ecus, long bytes);
    void print(FILE *out) const;
    bool write_json(const std::string &path) const;

  private:
    std::vector<Row> rows_;
    std::vector<std::pair<int, long>> handle_memory_;
    std::vector<std::pair<std::string, Summary>> latencies_;
};

// Writes an ECU configuration with `ecus` CAN ECUs at ecu_address(0..ecus-1)
// to a temporary file and returns its path.
std::string write_ecu_config(int ecus);
int32_t ecu_address(int index);
// Length of the query text the library sends for a ReadDTCInfo of ECU 0.
size_t typical_query_size(const std::string &config_path);
long resident_bytes();

}  // namespace uozbench

#endif
