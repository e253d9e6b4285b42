#include "bench_util.h"

#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "UDSOverZelko/config.h"
#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/read_dtc.h"
#include "kt5Utils/kt5_json.h"

namespace uozbench {

namespace {

std::string format(const char *fmt, double value) {
    char text[64];
    snprintf(text, sizeof(text), fmt, value);
    return text;
}

double percentile(const std::vector<double> &sorted, double fraction) {
    size_t index = static_cast<size_t>(fraction * (sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

}  // namespace

Summary summarize(std::vector<double> samples) {
    Summary summary;
    if (samples.empty())
        return summary;
    std::sort(samples.begin(), samples.end());
    summary.count = samples.size();
    summary.min_us = samples.front();
    summary.median_us = percentile(samples, 0.5);
    summary.p99_us = percentile(samples, 0.99);
    summary.max_us = samples.back();
    return summary;
}

void Report::add_latency(const std::string &name, const Summary &summary, const Summary &anchor) {
    char figure[160];
    snprintf(figure, sizeof(figure), "min %.0f / median %.0f / p99 %.0f / max %.0f us",
             summary.min_us, summary.median_us, summary.p99_us, summary.max_us);
    char comparison[96];
    snprintf(comparison, sizeof(comparison), "median %.2fx, p99 %.2fx",
             summary.median_us / anchor.median_us, summary.p99_us / anchor.p99_us);
    rows_.push_back({name, figure, comparison, "latency_us", summary.median_us,
                     summary.median_us / anchor.median_us});
    latencies_.emplace_back(name, summary);
}

void Report::add_rate(const std::string &name, double per_second, double anchor_per_second) {
    rows_.push_back({name, format("%.0f round trips/s", per_second),
                     format("%.2fx the 16-in-flight anchor", per_second / anchor_per_second),
                     "round_trips_per_second", per_second, per_second / anchor_per_second});
}

void Report::add_memory(const std::string &name, long bytes) {
    rows_.push_back({name, format("%.1f KiB", bytes / 1024.0), "", "resident_bytes",
                     static_cast<double>(bytes), 0});
}

void Report::add_cpu(const std::string &name, double nanoseconds, double goal_nanoseconds) {
    std::string comparison;
    if (goal_nanoseconds > 0) {
        comparison = format("goal <= %.0f ns: ", goal_nanoseconds) +
                     (nanoseconds <= goal_nanoseconds ? "met" : "MISSED");
    }
    std::string figure = nanoseconds < 100 ? format("%.2f ns", nanoseconds)
                                           : format("%.2f us", nanoseconds / 1000.0);
    rows_.push_back({name, figure, comparison, "cpu_ns", nanoseconds,
                     goal_nanoseconds > 0 ? nanoseconds / goal_nanoseconds : 0});
}

void Report::add_cpu_over_floor(const std::string &name, double nanoseconds,
                                double floor_nanoseconds, double goal_ratio) {
    double ratio = floor_nanoseconds > 0 ? nanoseconds / floor_nanoseconds : 0;
    char figure[96];
    snprintf(figure, sizeof(figure), "%.2f us = %.2f x %.2f us", nanoseconds / 1000.0, ratio,
             floor_nanoseconds / 1000.0);
    std::string comparison = format("goal <= %.1f x: ", goal_ratio) +
                             (ratio > 0 && ratio <= goal_ratio ? "met" : "MISSED");
    rows_.push_back({name, figure, comparison, "cpu_ns", nanoseconds, ratio});
}

void Report::add_other_load(const std::string &name, const CpuTimes &before, const CpuTimes &after,
                            double seconds) {
    double others = (after.machine_busy_ms - before.machine_busy_ms) -
                    (after.own_ms - before.own_ms) - (after.broker_ms - before.broker_ms);
    double stolen = after.stolen_ms - before.stolen_ms;
    others = std::max(others, 0.0);
    char figure[96];
    snprintf(figure, sizeof(figure), "other programs %.0f ms, hypervisor %.0f ms", others, stolen);
    double share = seconds > 0 ? (others + stolen) / (seconds * 1000) : 0;
    rows_.push_back({name, figure, format("%.0f%% of one core", share * 100), "other_cpu_ms",
                     others + stolen, 0});
}

void Report::note_handle_memory(int ecus, long bytes) {
    handle_memory_.emplace_back(ecus, bytes);
    if (handle_memory_.size() < 2)
        return;
    const auto &smallest = handle_memory_.front();
    const auto &largest = handle_memory_.back();
    double per_ecu =
        static_cast<double>(largest.second - smallest.second) / (largest.first - smallest.first);
    // Replace an earlier per-ECU row by the one over the widest range.
    rows_.erase(std::remove_if(rows_.begin(), rows_.end(),
                               [](const Row &row) { return row.name == "memory per ECU"; }),
                rows_.end());
    rows_.push_back({"memory per ECU", format("%.0f bytes", per_ecu),
                     per_ecu <= 2048 ? "goal <= 2 KiB: met" : "goal <= 2 KiB: MISSED",
                     "bytes_per_ecu", per_ecu, per_ecu / 2048});
}

void Report::print(FILE *out) const {
    fprintf(out, "\n%-48s %-56s %s\n", "measurement", "figure", "against anchor or goal");
    fprintf(out, "%s\n", std::string(140, '-').c_str());
    for (const Row &row : rows_) {
        fprintf(out, "%-48s %-56s %s\n", row.name.c_str(), row.figure.c_str(),
                row.comparison.c_str());
    }
}

bool Report::write_json(const std::string &path) const {
    JsonPtr root(json_object_new_object());
    json_object *rows = json_object_new_array();
    json_object_object_add(root.get(), "rows", rows);
    for (const Row &row : rows_) {
        json_object *item = json_object_new_object();
        json_object_object_add(item, "name", json_object_new_string(row.name.c_str()));
        json_object_object_add(item, row.json_key.c_str(), json_object_new_double(row.value));
        if (row.ratio > 0)
            json_object_object_add(item, "ratio", json_object_new_double(row.ratio));
        json_object_object_add(item, "text", json_object_new_string(row.figure.c_str()));
        json_object_array_add(rows, item);
    }
    json_object *latencies = json_object_new_object();
    json_object_object_add(root.get(), "latency_us", latencies);
    for (const auto &entry : latencies_) {
        json_object *item = json_object_new_object();
        json_object_object_add(item, "min", json_object_new_double(entry.second.min_us));
        json_object_object_add(item, "median", json_object_new_double(entry.second.median_us));
        json_object_object_add(item, "p99", json_object_new_double(entry.second.p99_us));
        json_object_object_add(item, "max", json_object_new_double(entry.second.max_us));
        json_object_object_add(item, "count",
                               json_object_new_int64(static_cast<int64_t>(entry.second.count)));
        json_object_object_add(latencies, entry.first.c_str(), item);
    }
    return json_object_to_file_ext(path.c_str(), root.get(), JSON_C_TO_STRING_PRETTY) == 0;
}

int32_t ecu_address(int index) {
    return 0x100 + index;
}

std::string write_ecu_config(int ecus) {
    JsonPtr root(json_object_new_object());
    json_object *configs = json_object_new_array();
    json_object_object_add(root.get(), "configs", configs);
    for (int i = 0; i < ecus; ++i) {
        char address[16], name[32], request[16], response[16];
        snprintf(address, sizeof(address), "0x%X", ecu_address(i));
        snprintf(name, sizeof(name), "ecu%d", i);
        snprintf(request, sizeof(request), "0x%X", ecu_address(i));
        snprintf(response, sizeof(response), "0x%X", ecu_address(i) + 0x8);
        json_object *entry = json_object_new_object();
        json_object_object_add(entry, "type", json_object_new_string("CAN"));
        json_object_object_add(entry, "targetAddress", json_object_new_string(address));
        json_object_object_add(entry, "name", json_object_new_string(name));
        json_object *can = json_object_new_object();
        json_object_object_add(can, "ifname", json_object_new_string("can0"));
        json_object_object_add(can, "func-addr", json_object_new_string("0x7DF"));
        json_object_object_add(can, "phy-req-id", json_object_new_string(request));
        json_object_object_add(can, "phy-resp-id", json_object_new_string(response));
        json_object_object_add(entry, "can", can);
        json_object *version = json_object_new_object();
        json_object *uds = json_object_new_array();
        json_object_array_add(uds, json_object_new_string("0xF189"));
        json_object_object_add(version, "uds", uds);
        json_object_object_add(entry, "ecu_version", version);
        json_object_array_add(configs, entry);
    }
    char path[] = "/tmp/uoz-bench-ecus-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0)
        return "";
    close(fd);
    json_object_to_file(path, root.get());
    return path;
}

size_t typical_query_size(const std::string &config_path) {
    int saved_level = uoz_dbg_level;
    uoz_dbg_level = -1;
    UDSOverZelkoHandle *handle = new_handle();
    size_t size = 0;
    if (load_ecu_config(handle, config_path.c_str()) == 0) {
        // The request that the benchmark's ReadDTCInfo (report 0x02, mask 0xFF) sends.
        JsonPtr uds(build_read_dtc_body(0x02, 0xFF, 0, 0));
        EcuConfig *record = nullptr;
        json_object *body =
            build_query_body(handle, ecu_address(0), QUERY_UDS_DATA, uds.get(), &record);
        Request request;
        if (body != nullptr && prepare_query(body, record, UOZ_LOG_INFO, &request))
            size = strlen(json_object_to_json_string(request.message.get()));
    }
    release_handle(handle);
    uoz_dbg_level = saved_level;
    return size > 0 ? size : 200;
}

namespace {

// utime + stime of a process, in clock ticks; 0 when it cannot be read.
long process_ticks(pid_t pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    FILE *stat = fopen(path, "r");
    if (stat == nullptr)
        return 0;
    char line[1024];
    long ticks = 0;
    if (fgets(line, sizeof(line), stat) != nullptr) {
        // The command name may hold spaces: the fields after it start at the last ')'.
        const char *rest = strrchr(line, ')');
        unsigned long user = 0, system = 0;
        if (rest != nullptr &&
            sscanf(rest + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                   &system) == 2) {
            ticks = static_cast<long>(user + system);
        }
    }
    fclose(stat);
    return ticks;
}

}  // namespace

CpuTimes cpu_times(pid_t broker) {
    CpuTimes times;
    double ms_per_tick = 1000.0 / sysconf(_SC_CLK_TCK);
    FILE *stat = fopen("/proc/stat", "r");
    if (stat != nullptr) {
        unsigned long long user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0,
                           softirq = 0, steal = 0;
        if (fscanf(stat, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &user, &nice, &system,
                   &idle, &iowait, &irq, &softirq, &steal) == 8) {
            times.machine_busy_ms = (user + nice + system + irq + softirq) * ms_per_tick;
            times.stolen_ms = steal * ms_per_tick;
        }
        fclose(stat);
    }
    times.own_ms = process_ticks(getpid()) * ms_per_tick;
    times.broker_ms = broker > 0 ? process_ticks(broker) * ms_per_tick : 0;
    return times;
}

long resident_bytes() {
    FILE *statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr)
        return 0;
    long pages_total = 0, pages_resident = 0;
    if (fscanf(statm, "%ld %ld", &pages_total, &pages_resident) != 2)
        pages_resident = 0;
    fclose(statm);
    return pages_resident * sysconf(_SC_PAGESIZE);
}

}  // namespace uozbench
