// uoz-bench: the library's cost measured side by side with the bare broker
// round trip, in one run on one broker. Prints one table and writes the same
// figures as JSON.
//
//   uoz-bench [--requests N] [--json FILE] [--quick]
//             [--latency-only | --throughput-only | --cpu-only]
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

#include "agent_peer.h"
#include "bench_util.h"
#include "broker_fixture.h"
#include "doip_path.h"
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
    int throughput_requests = 16000;  // per measurement, spread over rounds and threads
    int growth_requests = 100000;
    std::string json_path = "bench-results.json";
    // For quick comparisons while optimising: one part, table only.
    bool latency_only = false;
    bool throughput_only = false;
    bool cpu_only = false;  // the library's CPU against the json-c floor, no bus
};

Options parse_options(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--requests" && i + 1 < argc) {
            options.requests = atoi(argv[++i]);
        } else if (arg == "--json" && i + 1 < argc) {
            options.json_path = argv[++i];
        } else if (arg == "--latency-only") {
            options.latency_only = true;
        } else if (arg == "--throughput-only") {
            options.throughput_only = true;
        } else if (arg == "--cpu-only") {
            options.cpu_only = true;
        } else if (arg == "--quick") {
            options.requests = 500;
            options.warmup = 50;
            options.throughput_requests = 1600;
            options.growth_requests = 5000;
        } else {
            fprintf(stderr,
                    "usage: uoz-bench [--requests N] [--json FILE] [--quick] "
                    "[--latency-only | --throughput-only | --cpu-only]\n");
            exit(2);
        }
    }
    return options;
}

double elapsed_us(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Calls made and seconds spent, summed over rounds.
struct Rate {
    double calls = 0;
    double seconds = 0;
    double per_second() const { return seconds > 0 ? calls / seconds : 0; }
};

// Runs `total` calls of `one(thread)` on `threads` threads and adds them to
// *rate. The threads draw calls from one pool, so that all stay busy until
// the pool is empty and the run does not end with a tail of stragglers.
void run_parallel(int threads, int total, const std::function<bool(int)> &one, Rate *rate) {
    std::atomic<int> failures{0};
    std::atomic<int> remaining{total};
    auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            while (remaining.fetch_sub(1) > 0) {
                if (!one(t))
                    failures.fetch_add(1);
            }
        });
    }
    for (auto &worker : workers)
        worker.join();
    if (failures.load() > 0)
        fprintf(stderr, "warning: %d calls failed\n", failures.load());
    rate->calls += total;
    rate->seconds += elapsed_us(start) / 1e6;
}

double time_one(const std::function<bool()> &one) {
    auto start = Clock::now();
    if (!one())
        fprintf(stderr, "warning: a timed call failed\n");
    return elapsed_us(start);
}

// Medians of consecutive stretches of requests, in the order they ran: how
// fast an idle core wakes can change during a run, and with it the round
// trip of one side or the other.
void print_medians_over_time(const std::vector<std::vector<double>> &samples) {
    constexpr size_t kStretch = 500;
    fprintf(stderr, "medians per %zu requests in us, in the order of the table:", kStretch);
    for (size_t start = 0; start + kStretch <= samples[0].size(); start += kStretch) {
        const char *separator = " ";
        for (const std::vector<double> &contender : samples) {
            std::vector<double> stretch(contender.begin() + start,
                                        contender.begin() + start + kStretch);
            fprintf(stderr, "%s%.0f", separator, summarize(stretch).median_us);
            separator = "/";
        }
    }
    fprintf(stderr, "\n");
}

// The contenders take turns request by request, so that a change in the
// machine's load while the benchmark runs falls on all alike; which goes
// first rotates.
std::vector<Summary> interleaved_latency(int warmup, int count,
                                         const std::vector<std::function<bool()>> &contenders) {
    for (int i = 0; i < warmup; ++i) {
        for (const auto &contender : contenders)
            contender();
    }
    std::vector<std::vector<double>> samples(contenders.size());
    for (auto &contender_samples : samples)
        contender_samples.reserve(count);
    for (int i = 0; i < count; ++i) {
        for (size_t k = 0; k < contenders.size(); ++k) {
            size_t which = (i + k) % contenders.size();
            samples[which].push_back(time_one(contenders[which]));
        }
    }
    print_medians_over_time(samples);
    std::vector<Summary> summaries;
    for (auto &contender_samples : samples)
        summaries.push_back(summarize(contender_samples));
    return summaries;
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

// Latency of one request at a time, the two floors and the library taking
// turns: the bare ping-pong whose caller reads the reply on its own thread,
// the same with the caller woken by the network thread (the threading the
// library must have), and the library.
void measure_latency(const Options &options, const uoztest::Broker &broker, MosquittoPair &pair,
                     MosquittoPair &direct, UDSOverZelkoHandle *handle, size_t query_size,
                     const MinimalResponder &responder, Report &report) {
    fprintf(stderr,
            "latency: bare ping-pongs (%zu-byte payload) and UDSOverZelko_ReadDTCInfo, "
            "taking turns...\n",
            query_size);
    CpuTimes cpu_before = cpu_times(broker.pid());
    auto started = std::chrono::steady_clock::now();
    std::vector<Summary> summaries = interleaved_latency(
        options.warmup, options.requests,
        {[&] { return direct.round_trip(0); }, [&] { return pair.round_trip(0); },
         [&] { return read_dtc(handle, 0); }});
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    CpuTimes cpu_after = cpu_times(broker.pid());
    const Summary &no_hand_over = summaries[0];
    const Summary &woken = summaries[1];
    const Summary &library = summaries[2];
    report.add_latency("bare ping-pong, reply read on the caller's thread", no_hand_over,
                       no_hand_over);
    report.add_latency("bare ping-pong, caller woken by its network thread", woken, no_hand_over);
    report.add_latency("UDSOverZelko_ReadDTCInfo", library, woken);
    report.add_latency("UDSOverZelko_ReadDTCInfo against the first floor", library, no_hand_over);
    report.add_other_load("CPU taken by others during the latencies", cpu_before, cpu_after,
                          took.count());
    fprintf(stderr, "anchor payload %zu bytes, library query %zu bytes\n", query_size,
            responder.last_query_length());
}

// Round trips per second: the anchor with 16 in flight, the library with one
// thread per ECU, in rounds so that a change in load falls on all alike.
void measure_throughput(const Options &options, MosquittoPair &pair, UDSOverZelkoHandle *handle,
                        Report &report) {
    fprintf(stderr, "throughput: 16 in flight and 1, 4, 16, 64 ECUs, in rounds...\n");
    const std::vector<int> ecu_counts = {1, 4, 16, 64};
    Rate anchor16;
    std::vector<Rate> rates(ecu_counts.size());
    constexpr int kRounds = 4;
    for (int round = 0; round < kRounds; ++round) {
        run_parallel(
            16, options.throughput_requests / kRounds, [&](int t) { return pair.round_trip(t); },
            &anchor16);
        for (size_t i = 0; i < ecu_counts.size(); ++i) {
            run_parallel(
                ecu_counts[i], options.throughput_requests / kRounds,
                [&](int t) { return read_dtc(handle, t); }, &rates[i]);
        }
    }
    report.add_rate("bare ping-pong, 16 callers woken by the network thread", anchor16.per_second(),
                    anchor16.per_second());
    for (size_t i = 0; i < ecu_counts.size(); ++i) {
        report.add_rate("ReadDTCInfo, " + std::to_string(ecu_counts[i]) + " ECUs in parallel",
                        rates[i].per_second(), anchor16.per_second());
    }
}

bool read_engine(UDSOverZelkoHandle *handle) {
    DTCBuffer buffer{};
    int rc = UDSOverZelko_ReadDTCInfo(handle, 0x7E0, 0x02, 0xFF, &buffer);
    UDSOverZelko_FreeDTCBuffer(&buffer);
    return rc > 0;
}

// The whole path, library to broker to agent to DoIP to the simulated ECU and
// back, against the sum of its two bare round trips (MQTT through the broker,
// DoIP to the same simulator), taking turns. Runs after the minimal
// responder has left, so that only the real agent answers.
void measure_doip_path(const Options &options, const uoztest::Broker &broker, MosquittoPair &pair,
                       DoipTransport transport, Report &report) {
    const std::string doip = transport == DoipTransport::kTls ? "TLS DoIP" : "DoIP";
    fprintf(stderr, "latency through the agent and %s, and bare MQTT + bare %s...\n", doip.c_str(),
            doip.c_str());
    DoipPath path(broker.port(), transport);
    uozagent::AgentPeer watcher(uoztest::identity_dir("peer1"), broker.url());
    if (!watcher.wait_for_peer("/ZDATA/UDS", 10000)) {
        fprintf(stderr, "the agent did not connect\n");
        exit(1);
    }
    BareDoip bare(path.simulator_port(), transport);
    UDSOverZelkoHandle *handle = init_handle(broker, path.config_path());
    if (!read_engine(handle)) {
        fprintf(stderr, "no answer through the agent:\n%s\n", path.agent_output().c_str());
        exit(1);
    }
    if (!bare.round_trip()) {
        fprintf(stderr, "no answer from the simulator\n");
        exit(1);
    }
    std::vector<Summary> summaries =
        interleaved_latency(options.warmup, options.requests,
                            {[&] { return pair.round_trip(0) && bare.round_trip(); },
                             [&] { return read_engine(handle); }});
    report.add_latency("bare MQTT + bare " + doip + " round trips", summaries[0], summaries[0]);
    report.add_latency("UDSOverZelko_ReadDTCInfo via agent and " + doip, summaries[1],
                       summaries[0]);
    UDSOverZelko_Terminate(handle);
}

void measure_growth(const Options &options, UDSOverZelkoHandle *handle, Report &report) {
    fprintf(stderr, "memory growth over %d requests...\n", options.growth_requests);
    Rate ignored;
    run_parallel(
        16, options.growth_requests / 10, [&](int t) { return read_dtc(handle, t); }, &ignored);
    long before = resident_bytes();
    run_parallel(
        16, options.growth_requests, [&](int t) { return read_dtc(handle, t); }, &ignored);
    long after = resident_bytes();
    report.add_memory(
        "resident growth over " + std::to_string(options.growth_requests) + " requests",
        after - before);
}

void measure_handle_sizes(const uoztest::Broker &broker, Report &report) {
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
}

}  // namespace
}  // namespace uozbench

int main(int argc, char **argv) {
    using namespace uozbench;
    Options options = parse_options(argc, argv);
    uoz_dbg_level = -1;
    Report report;
    if (options.cpu_only) {
        std::string path = write_ecu_config(64);
        run_micro_benchmarks(path, report);
        unlink(path.c_str());
        report.print(stdout);
        return 0;
    }
    uoztest::Broker broker;
    std::string pki = uoztest::pki_dir();
    std::string config_path = write_ecu_config(64);
    size_t query_size = typical_query_size(config_path);

    MosquittoPair pair(pki, broker.port(), query_size, 64);
    MosquittoPair direct(pki, broker.port(), query_size, 1,
                         MosquittoPair::Waiting::kCallerRunsLoop);
    auto responder =
        std::make_unique<MinimalResponder>(uoztest::identity_dir("agent"), broker.url());
    if (!responder->wait_running()) {
        fprintf(stderr, "responder did not connect\n");
        return 1;
    }
    UDSOverZelkoHandle *handle = init_handle(broker, config_path);

    if (!options.throughput_only)
        measure_latency(options, broker, pair, direct, handle, query_size, *responder, report);
    if (!options.latency_only)
        measure_throughput(options, pair, handle, report);
    unsigned long answered = responder->answered();
    if (options.latency_only || options.throughput_only) {
        UDSOverZelko_Terminate(handle);
        unlink(config_path.c_str());
        responder.reset();
        if (options.latency_only) {
            measure_doip_path(options, broker, pair, DoipTransport::kPlain, report);
            measure_doip_path(options, broker, pair, DoipTransport::kTls, report);
        }
        report.print(stdout);
        return 0;
    }
    measure_growth(options, handle, report);
    UDSOverZelko_Terminate(handle);
    measure_handle_sizes(broker, report);

    fprintf(stderr, "library CPU without the bus...\n");
    run_micro_benchmarks(config_path, report);
    unlink(config_path.c_str());
    answered = responder->answered();
    responder.reset();
    measure_doip_path(options, broker, pair, DoipTransport::kPlain, report);
    measure_doip_path(options, broker, pair, DoipTransport::kTls, report);

    report.print(stdout);
    if (!report.write_json(options.json_path)) {
        fprintf(stderr, "cannot write %s\n", options.json_path.c_str());
        return 1;
    }
    printf("\nwrote %s (%lu replies answered)\n", options.json_path.c_str(), answered);
    return 0;
}
