// uoz-bench: the library's cost measured side by side with the bare broker
// round trip, in one run on one broker. Prints one table and writes the same
// figures as JSON.
//
//   uoz-bench [--requests N] [--json FILE] [--quick]
//
// Needs UOZ_TEST_PKI (a PKI made by uoz-pki with nodes "app" and "agent"), as
// scripts/bench.sh sets it.
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "broker_fixture.h"
#include "micro.h"
#include "mosquitto_pair.h"
#include "responder.h"
#include "udsoverzelko.h"

namespace uozbench {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int requests = 5000;
    int warmup = 500;
    int throughput_requests = 4000;  // per measurement, spread over the threads
    int growth_requests = 100000;
    std::string json_path = "bench-results.json";
};

Options parse_options(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--requests" && i + 1 < argc) {
            options.requests = atoi(argv[++i]);
        } else if (arg == "--json" && i + 1 < argc) {
            options.json_path = argv[++i];
        } else if (arg == "--quick") {
            options.requests = 500;
            options.warmup = 50;
            options.throughput_requests = 800;
            options.growth_requests = 5000;
        } else {
            fprintf(stderr, "usage: uoz-bench [--requests N] [--json FILE] [--quick]\n");
            exit(2);
        }
    }
    return options;
}

double elapsed_us(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Runs `total` calls of `one(thread)` spread over `threads` threads; returns
// calls per second.
double throughput(int threads, int total, const std::function<bool(int)> &one) {
    std::atomic<int> failures{0};
    int each = std::max(1, total / threads);
    auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < each; ++i) {
                if (!one(t))
                    failures.fetch_add(1);
            }
        });
    }
    for (auto &worker : workers)
        worker.join();
    double seconds = elapsed_us(start) / 1e6;
    if (failures.load() > 0)
        fprintf(stderr, "warning: %d calls failed\n", failures.load());
    return each * threads / seconds;
}

Summary latency(int warmup, int count, const std::function<bool()> &one) {
    for (int i = 0; i < warmup; ++i)
        one();
    std::vector<double> samples;
    samples.reserve(count);
    for (int i = 0; i < count; ++i) {
        auto start = Clock::now();
        if (!one())
            fprintf(stderr, "warning: a timed call failed\n");
        samples.push_back(elapsed_us(start));
    }
    return summarize(samples);
}

UDSOverZelkoHandle *init_handle(const uoztest::Broker &broker, const std::string &config_path) {
    std::string certs = uoztest::identity_dir("app");
    BrokerConfig config{};
    config.broker_ip = "localhost";
    config.port = broker.port();
    config.node_address = "app";
    config.cert_path = certs.c_str();
    config.debug_level = -1;
    UDSOverZelkoHandle *handle = UDSOverZelko_Init(&config, config_path.c_str());
    if (handle == nullptr) {
        fprintf(stderr, "UDSOverZelko_Init failed\n");
        exit(1);
    }
    // Give the client time to connect and subscribe before the first request.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return handle;
}

bool read_dtc(UDSOverZelkoHandle *handle, int ecu_index) {
    DTCBuffer buffer{};
    int rc = UDSOverZelko_ReadDTCInfo(handle, ecu_address(ecu_index), 0x02, 0xFF, &buffer);
    UDSOverZelko_FreeDTCBuffer(&buffer);
    return rc > 0;
}

}  // namespace
}  // namespace uozbench

int main(int argc, char **argv) {
    using namespace uozbench;
    Options options = parse_options(argc, argv);
    uoz_dbg_level = -1;
    Report report;
    uoztest::Broker broker;
    std::string pki = uoztest::pki_dir();
    std::string config_path = write_ecu_config(64);
    size_t query_size = typical_query_size(config_path);

    fprintf(stderr, "anchor: bare libmosquitto ping-pong, %zu-byte payload...\n", query_size);
    Summary anchor;
    double anchor16 = 0;
    {
        MosquittoPair pair(pki, broker.port(), query_size, 64);
        anchor = latency(options.warmup, options.requests, [&] { return pair.round_trip(0); });
        anchor16 = throughput(16, options.throughput_requests * 4,
                              [&](int t) { return pair.round_trip(t); });
    }
    report.add_latency("bare ping-pong (QoS 1, TLS)", anchor, anchor);
    report.add_rate("bare ping-pong, 16 in flight", anchor16, anchor16);

    MinimalResponder responder(uoztest::identity_dir("agent"), broker.url());
    if (!responder.wait_running()) {
        fprintf(stderr, "responder did not connect\n");
        return 1;
    }
    UDSOverZelkoHandle *handle = init_handle(broker, config_path);

    fprintf(stderr, "UDSOverZelko_ReadDTCInfo latency...\n");
    Summary library =
        latency(options.warmup, options.requests, [&] { return read_dtc(handle, 0); });
    report.add_latency("UDSOverZelko_ReadDTCInfo", library, anchor);

    for (int ecus : {1, 4, 16, 64}) {
        fprintf(stderr, "throughput with %d ECUs...\n", ecus);
        double rate = throughput(ecus, options.throughput_requests,
                                 [&](int t) { return read_dtc(handle, t); });
        report.add_rate("ReadDTCInfo, " + std::to_string(ecus) + " ECUs in parallel", rate,
                        anchor16);
    }

    fprintf(stderr, "memory growth over %d requests...\n", options.growth_requests);
    throughput(16, options.growth_requests / 10, [&](int t) { return read_dtc(handle, t); });
    long before = resident_bytes();
    throughput(16, options.growth_requests, [&](int t) { return read_dtc(handle, t); });
    long after = resident_bytes();
    report.add_memory(
        "resident growth over " + std::to_string(options.growth_requests) + " requests",
        after - before);
    UDSOverZelko_Terminate(handle);

    for (int ecus : {10, 1000, 10000}) {
        std::string path = write_ecu_config(ecus);
        long start = resident_bytes();
        UDSOverZelkoHandle *sized = init_handle(broker, path);
        long used = resident_bytes() - start;
        UDSOverZelko_Terminate(sized);
        unlink(path.c_str());
        report.add_memory("handle with " + std::to_string(ecus) + " ECUs", used);
        report.note_handle_memory(ecus, used);
    }

    fprintf(stderr, "library CPU without the bus...\n");
    run_micro_benchmarks(config_path, report);
    unlink(config_path.c_str());

    report.print(stdout);
    if (!report.write_json(options.json_path)) {
        fprintf(stderr, "cannot write %s\n", options.json_path.c_str());
        return 1;
    }
    printf("\nwrote %s (%lu replies answered)\n", options.json_path.c_str(), responder.answered());
    return 0;
}
