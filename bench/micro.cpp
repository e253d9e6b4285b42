#include "micro.h"

#include <benchmark/benchmark.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <iostream>
#include <map>

#include "UDSOverZelko/config.h"
#include "UDSOverZelko/exchange.h"
#include "UDSOverZelko/query.h"
#include "kt5Utils/kt5_json.h"

namespace uozbench {

namespace {

std::string g_config_path;

// A handle with the benchmark's ECUs and no bus connection.
struct OfflineHandle {
    UDSOverZelkoHandle *handle = nullptr;
    OfflineHandle() {
        handle = new_handle();
        if (load_ecu_config(handle, g_config_path.c_str()) != 0) {
            release_handle(handle);
            handle = nullptr;
        }
    }
    ~OfflineHandle() { release_handle(handle); }
};

const char *const kUdsRequest =
    "{\"SID\":\"0x19\",\"subfunction\":\"UDS_REPORT_DTC_BY_STATUS_MASK\","
    "\"data-record\":{\"type\":\"STATUS_MASK\",\"record\":[\"UDS_STATUS_MASK_TEST_FAILED\","
    "\"UDS_STATUS_MASK_CONFIRMED_DTC\"]}}";

std::string reply_with_records(int records, const char *target) {
    std::string reply = "{\"type\":\"zelko.skyharbor-query-update\",\"reply-to\":\"" +
                        std::string(REPLY_ID_LENGTH, 'a') + "\",\"body\":{\"targetAddress\":\"" +
                        target + "\",\"uds\":{\"data-record\":[";
    for (int i = 0; i < records; ++i) {
        char element[96];
        snprintf(element, sizeof(element),
                 "%s{\"phy-req-id\":\"0x%X\",\"data\":\"5902FF03010009\"}", i == 0 ? "" : ",",
                 ecu_address(i));
        reply += element;
    }
    return reply + "]}}}";
}

// The query of one request as query_exchange makes it: body, reply
// identifier and envelope.
Request build_request(UDSOverZelkoHandle *handle, json_object *uds) {
    EcuConfig *record = nullptr;
    json_object *body = build_query_body(handle, ecu_address(0), QUERY_UDS_DATA, uds, &record);
    Request request;
    if (body == nullptr || !prepare_query(body, record, UOZ_LOG_INFO, &request))
        abort();
    return request;
}

// Query build: body, reply identifier, envelope and its text, as one request does.
void BM_BuildQuery(benchmark::State &state) {
    OfflineHandle offline;
    JsonPtr uds(json_tokener_parse(kUdsRequest));
    for (auto _ : state) {
        Request request = build_request(offline.handle, uds.get());
        benchmark::DoNotOptimize(json_object_to_json_string(request.message.get()));
    }
}

// Routing of one reply by its target address into the ECU's reply slot: the
// one parse of the reply, the copy of its text, the hand-over.
void BM_RouteReply(benchmark::State &state) {
    OfflineHandle offline;
    std::string reply = reply_with_records(1, "0x100");
    kt5bus_address source{};
    source.kind = KT5BUS_ADDR_UA;
    source.value.name = const_cast<char *>("/ZDATA/UDS");
    for (auto _ : state) {
        on_bus_message(reply.c_str(), reply.size() + 1, &source, offline.handle);
    }
}

// Decoding of a reply's data records into a DTCBuffer. The caller decodes the
// JSON that the routing already parsed, so parsing is not counted again.
void BM_DecodeReply(benchmark::State &state) {
    OfflineHandle offline;
    std::string reply = reply_with_records(static_cast<int>(state.range(0)), "0x100");
    JsonPtr parsed(json_tokener_parse(reply.c_str()));
    for (auto _ : state) {
        DTCBuffer buffer{};
        benchmark::DoNotOptimize(decode_uds_reply(offline.handle, parsed.get(), &buffer));
        UDSOverZelko_FreeDTCBuffer(&buffer);
    }
}

// The floor that json-c itself sets for one request: parsing the same reply
// text that route_reply parses, with nothing else.
void BM_FloorParseReply(benchmark::State &state) {
    std::string reply = reply_with_records(1, "0x100");
    for (auto _ : state) {
        JsonPtr parsed(json_tokener_parse(reply.c_str()));
        benchmark::DoNotOptimize(parsed.get());
    }
}

// ... and serialising the same query object that build_query makes (json-c
// writes the text anew at every call).
void BM_FloorSerialiseQuery(benchmark::State &state) {
    OfflineHandle offline;
    JsonPtr uds(json_tokener_parse(kUdsRequest));
    Request request = build_request(offline.handle, uds.get());
    for (auto _ : state)
        benchmark::DoNotOptimize(json_object_to_json_string(request.message.get()));
}

// ... and what the query format itself requires of every query: the C
// library's generator seeded with the calendar second, then one draw per
// character of the reply identifier.
void BM_FloorReplyIdDraws(benchmark::State &state) {
    for (auto _ : state) {
        srand(static_cast<unsigned>(time(nullptr)));
        for (int i = 0; i < REPLY_ID_LENGTH; ++i)
            benchmark::DoNotOptimize(rand());
    }
}

int g_side_effects = 0;
const char *expensive_argument() {
    ++g_side_effects;
    return "never formatted";
}

// A statement that the level suppresses: one comparison, no argument evaluated.
void BM_SuppressedLog(benchmark::State &state) {
    uoz_dbg_level = 0;
    for (auto _ : state) {
        UOZ_DBGLOG(UOZ_LOG_DBG, "%s", expensive_argument());
        benchmark::ClobberMemory();
    }
    if (g_side_effects != 0)
        state.SkipWithError("a suppressed statement evaluated its argument");
}

// Collects each benchmark's CPU time per iteration: the least of its
// repetitions, since other programs on the machine only ever add to it.
class CollectingReporter : public benchmark::ConsoleReporter {
  public:
    std::map<std::string, double> nanoseconds;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration)
                continue;
            // The name without its repetition count, e.g. "decode_reply/10".
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty())
                name += "/" + run.run_name.args;
            double cpu = run.GetAdjustedCPUTime();
            auto known = nanoseconds.find(name);
            if (known == nanoseconds.end() || cpu < known->second)
                nanoseconds[name] = cpu;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

constexpr int kRepetitions = 3;

}  // namespace

void run_micro_benchmarks(const std::string &config_path, Report &report) {
    g_config_path = config_path;
    int saved_level = uoz_dbg_level;
    uoz_dbg_level = -1;
    benchmark::RegisterBenchmark("build_query", BM_BuildQuery)->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("route_reply", BM_RouteReply)->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("decode_reply", BM_DecodeReply)
        ->Arg(1)
        ->Arg(10)
        ->Arg(100)
        ->Arg(1000)
        ->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("suppressed_log", BM_SuppressedLog)->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("floor_parse_reply", BM_FloorParseReply)
        ->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("floor_serialise_query", BM_FloorSerialiseQuery)
        ->Repetitions(kRepetitions);
    benchmark::RegisterBenchmark("floor_reply_id_draws", BM_FloorReplyIdDraws)
        ->Repetitions(kRepetitions);
    int argc = 1;
    char name[] = "uoz-bench";
    char *argv[] = {name, nullptr};
    benchmark::Initialize(&argc, argv);
    CollectingReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    uoz_dbg_level = saved_level;

    auto &ns = reporter.nanoseconds;
    report.add_cpu("build a query (body, id, envelope, text)", ns["build_query"], 0);
    report.add_cpu("route a reply (on_bus_message)", ns["route_reply"], 0);
    for (int records : {1, 10, 100, 1000}) {
        std::string key = "decode_reply/" + std::to_string(records);
        report.add_cpu("decode a reply of " + std::to_string(records) + " records", ns[key], 0);
    }
    report.add_cpu_over_floor("decode of 1000 records over 100", ns["decode_reply/1000"],
                              ns["decode_reply/100"], 12);
    double per_request = ns["build_query"] + ns["route_reply"] + ns["decode_reply/1"];
    double floor =
        ns["floor_parse_reply"] + ns["floor_serialise_query"] + ns["floor_reply_id_draws"];
    report.add_cpu("json-c: parse the same reply text", ns["floor_parse_reply"], 0);
    report.add_cpu("json-c: serialise the same query object", ns["floor_serialise_query"], 0);
    report.add_cpu("srand(time) and 24 rand() of the reply identifier", ns["floor_reply_id_draws"],
                   0);
    report.add_cpu("library CPU per request (build + route + decode 1)", per_request, 10000);
    report.add_cpu_over_floor("library CPU per request over the floor", per_request, floor, 1.3);
    report.add_cpu("suppressed log statement", ns["suppressed_log"], 2);
}

}  // namespace uozbench
