// One simulated ECU as a UDS server: sessions with their timing, reset,
// clearing and reading DTCs, reading DIDs, security access by seed and key,
// routines, tester present, and the S3 timeout back to the default session.
// It decides what to answer; the transport decides when and how to send it.
#ifndef UOZ_TOOLS_UDS_SERVER_H
#define UOZ_TOOLS_UDS_SERVER_H

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <functional>
#include <map>

#include "uds.h"
#include "vehicle.h"

namespace uozecusim {

using Clock = std::chrono::steady_clock;

struct ServerSettings {
    uint32_t s3_ms = uozuds::kS3Ms;
    uint16_t p2_ms = uozuds::kDefaultP2Ms;
    uint32_t p2_star_ms = uozuds::kDefaultP2StarMs;
    int max_key_attempts = 3;
    uint32_t security_delay_ms = 10000;  // after the attempts are exhausted
};

// What the transport sends for one request.
struct UdsAnswer {
    bool suppressed = false;  // positive answer not wanted (sub-function bit 7)
    Bytes response;           // positive or negative response
    uint32_t busy_ms = 0;     // work time before `response`: the transport sends 0x78 meanwhile
};

// Not thread-safe: the transport serialises the requests of one ECU.
class EcuServer {
  public:
    using SeedSource = std::function<uint32_t()>;

    // seeds: where request-seed answers come from (random when empty);
    // a zero from it is replaced, since a zero seed means "already unlocked".
    EcuServer(SimulatedEcu ecu, ServerSettings settings, SeedSource seeds = nullptr);

    UdsAnswer handle(const uint8_t *request, size_t length, Clock::time_point now);

    const SimulatedEcu &ecu() const { return ecu_; }
    uint8_t session() const { return session_; }
    uint8_t unlocked_level() const { return unlocked_level_; }  // 0: locked

  private:
    struct RoutineState {
        bool started = false;
        bool stopped = false;
    };

    void expire_session(Clock::time_point now);
    void enter_default_session();
    UdsAnswer session_control(const uint8_t *request, size_t length);
    UdsAnswer ecu_reset(const uint8_t *request, size_t length);
    UdsAnswer clear_dtcs(const uint8_t *request, size_t length);
    UdsAnswer read_dids(const uint8_t *request, size_t length) const;
    UdsAnswer security_access(const uint8_t *request, size_t length, Clock::time_point now);
    UdsAnswer routine_control(const uint8_t *request, size_t length);
    UdsAnswer tester_present(const uint8_t *request, size_t length) const;
    uint32_t next_seed();

    SimulatedEcu ecu_;
    ServerSettings settings_;
    SeedSource seeds_;
    uint8_t session_ = uozuds::session::kDefault;
    Clock::time_point last_request_{};
    uint8_t unlocked_level_ = 0;
    uint8_t seed_level_ = 0;  // level whose seed awaits its key, 0: none
    uint32_t seed_ = 0;
    int failed_attempts_ = 0;
    Clock::time_point locked_out_until_{};
    std::map<uint16_t, RoutineState> routines_;
};

// A negative response 7F SID NRC.
Bytes negative_response(uint8_t service, uint8_t code);

// Negative answers an ECU keeps to itself when a request was sent to all
// ECUs at once (functional addressing): not its service, sub-function or data.
bool silent_when_functional(const Bytes &response);

}  // namespace uozecusim

#endif
