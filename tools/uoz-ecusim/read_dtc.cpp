#include "read_dtc.h"

#include "uds.h"

namespace uozecusim {

namespace {

constexpr uint8_t kConfirmedDtc = 0x08;
constexpr uint8_t kTestFailed = 0x01;
constexpr uint8_t kAllRecords = 0xFF;
constexpr uint8_t kAllObdRecords = 0xFE;
constexpr uint8_t kFdcFailed = 0x7F;

Bytes negative(uint8_t code) {
    return {uozuds::kNegativeResponse, uozuds::sid::kReadDtcInformation, code};
}

uint32_t dtc_at(const uint8_t *bytes) {
    return static_cast<uint32_t>(bytes[0]) << 16 | static_cast<uint32_t>(bytes[1]) << 8 | bytes[2];
}

void put_dtc(Bytes &out, uint32_t code) {
    out.push_back(static_cast<uint8_t>(code >> 16));
    out.push_back(static_cast<uint8_t>(code >> 8));
    out.push_back(static_cast<uint8_t>(code));
}

void put_dtc_and_status(Bytes &out, const SimulatedDtc &dtc) {
    put_dtc(out, dtc.code);
    out.push_back(dtc.status);
}

const SimulatedDtc *find_dtc(const std::vector<SimulatedDtc> &memory, uint32_t code) {
    for (const SimulatedDtc &dtc : memory) {
        if (dtc.code == code)
            return &dtc;
    }
    return nullptr;
}

// The number of identifiers, then each DID (2 bytes) and its data.
void put_identifiers(Bytes &out, const std::vector<DidValue> &dids) {
    out.push_back(static_cast<uint8_t>(dids.size()));
    for (const DidValue &value : dids) {
        out.push_back(static_cast<uint8_t>(value.did >> 8));
        out.push_back(static_cast<uint8_t>(value.did));
        out.insert(out.end(), value.data.begin(), value.data.end());
    }
}

void put_snapshot(Bytes &out, uint8_t number, const std::vector<DidValue> &dids) {
    out.push_back(number);
    put_identifiers(out, dids);
}

bool obd_record(uint8_t number) {
    return number >= 0x90 && number <= 0xEF;
}

// Records of one DTC: all of them for 0xFF, the OBD ones for 0xFE (extended
// data only), else the one asked for if the DTC holds it.
template <typename Record, typename Put>
void put_records(Bytes &out, const std::map<uint8_t, Record> &records, uint8_t wanted, Put put) {
    for (const auto &[number, record] : records) {
        if (wanted == kAllRecords || number == wanted ||
            (wanted == kAllObdRecords && obd_record(number)))
            put(out, number, record);
    }
}

void put_extended(Bytes &out, uint8_t number, const Bytes &data) {
    out.push_back(number);
    out.insert(out.end(), data.begin(), data.end());
}

bool known_snapshot_record(const SimulatedEcu &ecu, uint8_t record) {
    return record == kAllRecords || ecu.snapshot_record_numbers.count(record) != 0;
}

bool known_extended_record(const SimulatedEcu &ecu, uint8_t record) {
    return record == kAllRecords || record == kAllObdRecords ||
           ecu.extended_record_numbers.count(record) != 0;
}

void put_count(Bytes &out, const std::vector<SimulatedDtc> &memory,
               bool (*listed)(const SimulatedDtc &, uint8_t), uint8_t mask) {
    uint16_t count = 0;
    for (const SimulatedDtc &dtc : memory)
        count += listed(dtc, mask) ? 1 : 0;
    out.insert(out.end(), {kDtcAvailabilityMask, kDtcFormatIso14229,
                           static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)});
}

void put_list(Bytes &out, const std::vector<SimulatedDtc> &memory,
              bool (*listed)(const SimulatedDtc &, uint8_t), uint8_t mask) {
    out.push_back(kDtcAvailabilityMask);
    for (const SimulatedDtc &dtc : memory) {
        if (listed(dtc, mask))
            put_dtc_and_status(out, dtc);
    }
}

bool by_status(const SimulatedDtc &dtc, uint8_t mask) {
    return (dtc.status & mask) != 0;
}

bool emission_by_status(const SimulatedDtc &dtc, uint8_t mask) {
    return dtc.emission_related && (dtc.status & mask) != 0;
}

bool permanent(const SimulatedDtc &dtc, uint8_t) {
    return dtc.permanent;
}

bool any(const SimulatedDtc &, uint8_t) {
    return true;
}

// First or most recent DTC with a status bit: memories are kept in
// occurrence order.
void put_first_or_last(Bytes &out, const std::vector<SimulatedDtc> &memory, uint8_t bit,
                       bool last) {
    out.push_back(kDtcAvailabilityMask);
    const SimulatedDtc *chosen = nullptr;
    for (const SimulatedDtc &dtc : memory) {
        if ((dtc.status & bit) != 0 && (chosen == nullptr || last))
            chosen = &dtc;
    }
    if (chosen != nullptr)
        put_dtc_and_status(out, *chosen);
}

bool severity_matches(const SimulatedDtc &dtc, uint8_t severity_mask, uint8_t status_mask) {
    return (dtc.severity & severity_mask) != 0 && (dtc.status & status_mask) != 0;
}

void put_severity_record(Bytes &out, const SimulatedDtc &dtc) {
    out.push_back(dtc.severity);
    out.push_back(dtc.functional_unit);
    put_dtc_and_status(out, dtc);
}

// 0x05: one block per record number (number, DTC, status, identifiers),
// each from the first DTC that holds that snapshot; the echoed number alone
// when none does.
Bytes stored_data(const SimulatedEcu &ecu, uint8_t record) {
    Bytes out = {0x59, 0x05};
    bool any_block = false;
    for (uint8_t number : ecu.snapshot_record_numbers) {
        if (record != kAllRecords && number != record)
            continue;
        for (const SimulatedDtc &dtc : ecu.dtcs) {
            auto snapshot = dtc.snapshots.find(number);
            if (snapshot == dtc.snapshots.end())
                continue;
            out.push_back(number);
            put_dtc_and_status(out, dtc);
            put_identifiers(out, snapshot->second);
            any_block = true;
            break;
        }
    }
    if (!any_block)
        out.push_back(record);
    return out;
}

// 0x04, 0x06, 0x10, 0x18, 0x19: one DTC's snapshot or extended records.
Bytes records_of_dtc(const SimulatedEcu &ecu, const std::vector<SimulatedDtc> &memory,
                     uint8_t report, uint32_t code, uint8_t record, Bytes out) {
    bool snapshot = report == 0x04 || report == 0x18;
    if (!(snapshot ? known_snapshot_record(ecu, record) : known_extended_record(ecu, record)))
        return negative(uozuds::nrc::kRequestOutOfRange);
    const SimulatedDtc *dtc = find_dtc(memory, code);
    if (dtc == nullptr)
        return negative(uozuds::nrc::kRequestOutOfRange);
    put_dtc_and_status(out, *dtc);
    if (snapshot)
        put_records(out, dtc->snapshots, record, put_snapshot);
    else
        put_records(out, dtc->extended, record, put_extended);
    return out;
}

Bytes user_memory_report(const SimulatedEcu &ecu, const uint8_t *request) {
    uint8_t report = request[1];
    uint8_t selection = report == 0x17 ? request[3] : request[6];
    auto memory = ecu.user_memories.find(selection);
    if (memory == ecu.user_memories.end())
        return negative(uozuds::nrc::kRequestOutOfRange);
    Bytes out = {0x59, report, selection};
    if (report == 0x17) {
        put_list(out, memory->second, by_status, request[2]);
        return out;
    }
    return records_of_dtc(ecu, memory->second, report, dtc_at(request + 2), request[5], out);
}

}  // namespace

size_t read_dtc_request_length(uint8_t report) {
    switch (report) {
        case 0x03:
        case 0x0A:
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x0E:
        case 0x14:
        case 0x15:
            return 2;
        case 0x01:
        case 0x02:
        case 0x05:
        case 0x0F:
        case 0x11:
        case 0x12:
        case 0x13:
        case 0x16:
            return 3;
        case 0x07:
        case 0x08:
        case 0x17:
            return 4;
        case 0x09:
            return 5;
        case 0x04:
        case 0x06:
        case 0x10:
            return 6;
        case 0x18:
        case 0x19:
            return 7;
    }
    return 0;
}

Bytes read_dtc_response(const SimulatedEcu &ecu, const uint8_t *request, size_t length) {
    if (length < 2)
        return negative(uozuds::nrc::kIncorrectMessageLength);
    const uint8_t report = request[1];
    const size_t expected = read_dtc_request_length(report);
    if (expected == 0 || ecu.unsupported_reports.count(report) != 0)
        return negative(uozuds::nrc::kSubFunctionNotSupported);
    if (length != expected)
        return negative(uozuds::nrc::kIncorrectMessageLength);
    const std::vector<SimulatedDtc> &memory = ecu.dtcs;
    Bytes out = {0x59, report};
    switch (report) {
        case 0x01:
        case 0x11:
            put_count(out, memory, by_status, request[2]);
            break;
        case 0x12:
            put_count(out, memory, emission_by_status, request[2]);
            break;
        case 0x02:
        case 0x0F:
            put_list(out, memory, by_status, request[2]);
            break;
        case 0x13:
            put_list(out, memory, emission_by_status, request[2]);
            break;
        case 0x0A:
            put_list(out, memory, any, 0);
            break;
        case 0x15:
            put_list(out, memory, permanent, 0);
            break;
        case 0x0B:
        case 0x0C:
        case 0x0D:
        case 0x0E:
            put_first_or_last(out, memory,
                              report == 0x0B || report == 0x0D ? kTestFailed : kConfirmedDtc,
                              report >= 0x0D);
            break;
        case 0x03:
            for (const SimulatedDtc &dtc : memory) {
                for (const auto &snapshot : dtc.snapshots) {
                    put_dtc(out, dtc.code);
                    out.push_back(snapshot.first);
                }
            }
            break;
        case 0x04:
        case 0x06:
        case 0x10:
            return records_of_dtc(ecu, memory, report, dtc_at(request + 2), request[5], out);
        case 0x05:
            if (!known_snapshot_record(ecu, request[2]))
                return negative(uozuds::nrc::kRequestOutOfRange);
            return stored_data(ecu, request[2]);
        case 0x07:
        case 0x08: {
            uint16_t count = 0;
            Bytes records;
            for (const SimulatedDtc &dtc : memory) {
                if (!severity_matches(dtc, request[2], request[3]))
                    continue;
                ++count;
                put_severity_record(records, dtc);
            }
            if (report == 0x07) {
                out.insert(out.end(),
                           {kDtcAvailabilityMask, kDtcFormatIso14229,
                            static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)});
            } else {
                out.push_back(kDtcAvailabilityMask);
                out.insert(out.end(), records.begin(), records.end());
            }
            break;
        }
        case 0x09: {
            const SimulatedDtc *dtc = find_dtc(memory, dtc_at(request + 2));
            if (dtc == nullptr)
                return negative(uozuds::nrc::kRequestOutOfRange);
            out.push_back(kDtcAvailabilityMask);
            put_severity_record(out, *dtc);
            break;
        }
        case 0x14:  // pre-failed: counting towards failure, not yet confirmed
            for (const SimulatedDtc &dtc : memory) {
                uint8_t counter = dtc.fault_detection_counter;
                if (counter == 0 || counter >= kFdcFailed || (dtc.status & kConfirmedDtc) != 0)
                    continue;
                put_dtc(out, dtc.code);
                out.push_back(counter);
            }
            break;
        case 0x16: {
            uint8_t record = request[2];
            if (record > 0xEF || ecu.extended_record_numbers.count(record) == 0)
                return negative(uozuds::nrc::kRequestOutOfRange);
            out.push_back(record);
            for (const SimulatedDtc &dtc : memory) {
                auto extended = dtc.extended.find(record);
                if (extended == dtc.extended.end())
                    continue;
                put_dtc_and_status(out, dtc);
                out.insert(out.end(), extended->second.begin(), extended->second.end());
            }
            break;
        }
        case 0x17:
        case 0x18:
        case 0x19:
            return user_memory_report(ecu, request);
    }
    return out;
}

}  // namespace uozecusim
