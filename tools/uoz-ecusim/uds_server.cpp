#include "uds_server.h"

#include <algorithm>
#include <random>

#include "read_dtc.h"

namespace uozecusim {

namespace {

namespace nrc = uozuds::nrc;
namespace sid = uozuds::sid;

constexpr uint16_t kActiveSessionDid = 0xF186;
constexpr uint32_t kClearAllGroup = 0xFFFFFF;
constexpr uint32_t kClearEmissionGroup = 0xFFFF33;

UdsAnswer refuse(uint8_t service, uint8_t code) {
    UdsAnswer answer;
    answer.response = negative_response(service, code);
    return answer;
}

UdsAnswer positive(Bytes response, bool suppress) {
    UdsAnswer answer;
    answer.response = std::move(response);
    answer.suppressed = suppress;
    return answer;
}

bool suppress_bit(uint8_t sub_function) {
    return (sub_function & uozuds::kSuppressPositiveResponse) != 0;
}

void put16(Bytes &out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

uint32_t random_seed() {
    static thread_local std::mt19937 generator{std::random_device{}()};
    return static_cast<uint32_t>(generator());
}

}  // namespace

bool silent_when_functional(const Bytes &response) {
    if (response.size() != 3 || response[0] != uozuds::kNegativeResponse)
        return false;
    switch (response[2]) {
        case uozuds::nrc::kServiceNotSupported:
        case uozuds::nrc::kSubFunctionNotSupported:
        case uozuds::nrc::kRequestOutOfRange:
        case uozuds::nrc::kSubFunctionNotSupportedInActiveSession:
        case uozuds::nrc::kServiceNotSupportedInActiveSession:
            return true;
    }
    return false;
}

Bytes negative_response(uint8_t service, uint8_t code) {
    return {uozuds::kNegativeResponse, service, code};
}

EcuServer::EcuServer(SimulatedEcu ecu, ServerSettings settings, SeedSource seeds)
    : ecu_(std::move(ecu)), settings_(settings), seeds_(std::move(seeds)) {}

UdsAnswer EcuServer::handle(const uint8_t *request, size_t length, Clock::time_point now) {
    if (length == 0)
        return refuse(0x00, nrc::kIncorrectMessageLength);
    expire_session(now);
    last_request_ = now;
    switch (request[0]) {
        case sid::kDiagnosticSessionControl:
            return session_control(request, length);
        case sid::kEcuReset:
            return ecu_reset(request, length);
        case sid::kClearDiagnosticInformation:
            return clear_dtcs(request, length);
        case sid::kReadDtcInformation:
            return positive(read_dtc_response(ecu_, request, length), false);
        case sid::kReadDataByIdentifier:
            return read_dids(request, length);
        case sid::kSecurityAccess:
            return security_access(request, length, now);
        case sid::kRoutineControl:
            return routine_control(request, length);
        case sid::kTesterPresent:
            return tester_present(request, length);
    }
    return refuse(request[0], nrc::kServiceNotSupported);
}

// Without a request for S3, a non-default session falls back to the default
// one, and security is locked again.
void EcuServer::expire_session(Clock::time_point now) {
    if (session_ != uozuds::session::kDefault &&
        now - last_request_ > std::chrono::milliseconds(settings_.s3_ms))
        enter_default_session();
}

void EcuServer::enter_default_session() {
    session_ = uozuds::session::kDefault;
    unlocked_level_ = 0;
    seed_level_ = 0;
}

UdsAnswer EcuServer::session_control(const uint8_t *request, size_t length) {
    if (length != 2)
        return refuse(sid::kDiagnosticSessionControl, nrc::kIncorrectMessageLength);
    uint8_t session = request[1] & 0x7F;
    if (session < uozuds::session::kDefault || session > uozuds::session::kExtended)
        return refuse(sid::kDiagnosticSessionControl, nrc::kSubFunctionNotSupported);
    // Every change of session, and re-entering a non-default one, locks security.
    if (session != uozuds::session::kDefault || session_ != uozuds::session::kDefault) {
        unlocked_level_ = 0;
        seed_level_ = 0;
    }
    session_ = session;
    Bytes response = {sid::kDiagnosticSessionControl + uozuds::kPositiveOffset, session};
    put16(response, settings_.p2_ms);
    put16(response, static_cast<uint16_t>(settings_.p2_star_ms / 10));
    return positive(response, suppress_bit(request[1]));
}

UdsAnswer EcuServer::ecu_reset(const uint8_t *request, size_t length) {
    if (length != 2)
        return refuse(sid::kEcuReset, nrc::kIncorrectMessageLength);
    uint8_t type = request[1] & 0x7F;
    if (type < 0x01 || type > 0x03)  // hard, key off/on, soft
        return refuse(sid::kEcuReset, nrc::kSubFunctionNotSupported);
    enter_default_session();
    routines_.clear();
    return positive({sid::kEcuReset + uozuds::kPositiveOffset, type}, suppress_bit(request[1]));
}

// 14 GROUP(3) [MEMORY]: the memory selection byte (newer testers send it)
// clears in that user-defined memory instead of the primary one.
UdsAnswer EcuServer::clear_dtcs(const uint8_t *request, size_t length) {
    if (length != 4 && length != 5)
        return refuse(sid::kClearDiagnosticInformation, nrc::kIncorrectMessageLength);
    uint32_t group = static_cast<uint32_t>(request[1]) << 16 |
                     static_cast<uint32_t>(request[2]) << 8 | request[3];
    std::vector<SimulatedDtc> *memory = &ecu_.dtcs;
    if (length == 5) {
        auto selected = ecu_.user_memories.find(request[4]);
        if (selected == ecu_.user_memories.end())
            return refuse(sid::kClearDiagnosticInformation, nrc::kRequestOutOfRange);
        memory = &selected->second;
    }
    std::vector<SimulatedDtc> &dtcs = *memory;
    auto cleared = [&](const SimulatedDtc &dtc) {
        return group == kClearAllGroup || (group == kClearEmissionGroup && dtc.emission_related) ||
               dtc.code == group;
    };
    bool known = group == kClearAllGroup || group == kClearEmissionGroup ||
                 std::any_of(dtcs.begin(), dtcs.end(), cleared);
    if (!known)
        return refuse(sid::kClearDiagnosticInformation, nrc::kRequestOutOfRange);
    // A cleared DTC stays supported (report 0x0A, and a second clear of its
    // group is accepted); only what it had recorded is gone.
    for (SimulatedDtc &dtc : dtcs) {
        if (!cleared(dtc))
            continue;
        dtc.status = 0;
        dtc.fault_detection_counter = 0;
        dtc.permanent = false;
        dtc.snapshots.clear();
        dtc.extended.clear();
    }
    return positive({sid::kClearDiagnosticInformation + uozuds::kPositiveOffset}, false);
}

// Every DID the ECU has, in the order asked; requestOutOfRange when it has none.
UdsAnswer EcuServer::read_dids(const uint8_t *request, size_t length) const {
    if (length < 3 || (length - 1) % 2 != 0)
        return refuse(sid::kReadDataByIdentifier, nrc::kIncorrectMessageLength);
    Bytes response = {sid::kReadDataByIdentifier + uozuds::kPositiveOffset};
    for (size_t at = 1; at + 1 < length; at += 2) {
        uint16_t did = static_cast<uint16_t>(request[at] << 8 | request[at + 1]);
        if (did == kActiveSessionDid) {
            put16(response, did);
            response.push_back(session_);
            continue;
        }
        auto value = ecu_.dids.find(did);
        if (value == ecu_.dids.end())
            continue;
        put16(response, did);
        response.insert(response.end(), value->second.begin(), value->second.end());
    }
    if (response.size() == 1)
        return refuse(sid::kReadDataByIdentifier, nrc::kRequestOutOfRange);
    return positive(response, false);
}

uint32_t EcuServer::next_seed() {
    uint32_t seed = seeds_ ? seeds_() : random_seed();
    return seed != 0 ? seed : 0x1;
}

UdsAnswer EcuServer::security_access(const uint8_t *request, size_t length, Clock::time_point now) {
    constexpr uint8_t kService = sid::kSecurityAccess;
    if (length < 2)
        return refuse(kService, nrc::kIncorrectMessageLength);
    if (session_ == uozuds::session::kDefault)
        return refuse(kService, nrc::kServiceNotSupportedInActiveSession);
    const uint8_t level = request[1] & 0x7F;
    const bool request_seed = level % 2 == 1;
    const uint8_t seed_level = request_seed ? level : static_cast<uint8_t>(level - 1);
    if (level == 0 || level > 0x7E || ecu_.security_levels.count(seed_level) == 0)
        return refuse(kService, nrc::kSubFunctionNotSupported);
    const bool suppress = suppress_bit(request[1]);
    Bytes response = {kService + uozuds::kPositiveOffset, level};
    if (request_seed) {
        if (length != 2)
            return refuse(kService, nrc::kIncorrectMessageLength);
        if (now < locked_out_until_)
            return refuse(kService, nrc::kRequiredTimeDelayNotExpired);
        uint32_t seed = 0;  // the zero seed: this level is already unlocked
        if (unlocked_level_ != level) {
            seed = next_seed();
            seed_level_ = level;
            seed_ = seed;
        }
        for (int shift = 24; shift >= 0; shift -= 8)
            response.push_back(static_cast<uint8_t>(seed >> shift));
        return positive(response, suppress);
    }
    if (length != 2 + uozuds::kBuiltinSeedLength)
        return refuse(kService, nrc::kIncorrectMessageLength);
    if (seed_level_ != seed_level)
        return refuse(kService, nrc::kRequestSequenceError);
    uint32_t key = 0;
    for (size_t i = 2; i < length; ++i)
        key = key << 8 | request[i];
    seed_level_ = 0;  // a key answers one seed, right or wrong
    if (key != uozuds::builtin_key(seed_level, seed_)) {
        if (++failed_attempts_ < settings_.max_key_attempts)
            return refuse(kService, nrc::kInvalidKey);
        failed_attempts_ = 0;
        locked_out_until_ = now + std::chrono::milliseconds(settings_.security_delay_ms);
        return refuse(kService, nrc::kExceededNumberOfAttempts);
    }
    failed_attempts_ = 0;
    unlocked_level_ = seed_level;
    return positive(response, suppress);
}

UdsAnswer EcuServer::routine_control(const uint8_t *request, size_t length) {
    constexpr uint8_t kService = sid::kRoutineControl;
    if (length < 4)
        return refuse(kService, nrc::kIncorrectMessageLength);
    const uint8_t type = request[1] & 0x7F;
    if (type < uozuds::routine::kStart || type > uozuds::routine::kResults)
        return refuse(kService, nrc::kSubFunctionNotSupported);
    const uint16_t id = static_cast<uint16_t>(request[2] << 8 | request[3]);
    auto found = ecu_.routine_control.find(id);
    if (found == ecu_.routine_control.end())
        return refuse(kService, nrc::kRequestOutOfRange);
    const Routine &routine = found->second;
    if (routine.security_level != 0 && unlocked_level_ != routine.security_level)
        return refuse(kService, nrc::kSecurityAccessDenied);
    RoutineState &state = routines_[id];
    Bytes response = {kService + uozuds::kPositiveOffset, type, request[2], request[3]};
    UdsAnswer answer;
    switch (type) {
        case uozuds::routine::kStart:
            state = RoutineState{true, false};
            response.insert(response.end(), routine.start_result.begin(),
                            routine.start_result.end());
            answer.busy_ms = routine.duration_ms;
            break;
        case uozuds::routine::kStop:
            if (!routine.stoppable)
                return refuse(kService, nrc::kSubFunctionNotSupported);
            if (!state.started || state.stopped)
                return refuse(kService, nrc::kRequestSequenceError);
            state.stopped = true;
            response.insert(response.end(), routine.stop_result.begin(), routine.stop_result.end());
            break;
        case uozuds::routine::kResults:
            if (!state.started)
                return refuse(kService, nrc::kRequestSequenceError);
            response.insert(response.end(), routine.results.begin(), routine.results.end());
            break;
    }
    answer.response = response;
    answer.suppressed = suppress_bit(request[1]);
    return answer;
}

UdsAnswer EcuServer::tester_present(const uint8_t *request, size_t length) const {
    if (length != 2)
        return refuse(sid::kTesterPresent, nrc::kIncorrectMessageLength);
    if ((request[1] & 0x7F) != 0x00)
        return refuse(sid::kTesterPresent, nrc::kSubFunctionNotSupported);
    return positive({sid::kTesterPresent + uozuds::kPositiveOffset, 0x00},
                    suppress_bit(request[1]));
}

}  // namespace uozecusim
