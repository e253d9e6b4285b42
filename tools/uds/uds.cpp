#include "uds.h"

namespace uozuds {

const char *nrc_name(uint8_t code) {
    switch (code) {
        case 0x10:
            return "generalReject";
        case 0x11:
            return "serviceNotSupported";
        case 0x12:
            return "subFunctionNotSupported";
        case 0x13:
            return "incorrectMessageLengthOrInvalidFormat";
        case 0x14:
            return "responseTooLong";
        case 0x21:
            return "busyRepeatRequest";
        case 0x22:
            return "conditionsNotCorrect";
        case 0x24:
            return "requestSequenceError";
        case 0x25:
            return "noResponseFromSubnetComponent";
        case 0x26:
            return "failurePreventsExecutionOfRequestedAction";
        case 0x31:
            return "requestOutOfRange";
        case 0x33:
            return "securityAccessDenied";
        case 0x35:
            return "invalidKey";
        case 0x36:
            return "exceedNumberOfAttempts";
        case 0x37:
            return "requiredTimeDelayNotExpired";
        case 0x70:
            return "uploadDownloadNotAccepted";
        case 0x71:
            return "transferDataSuspended";
        case 0x72:
            return "generalProgrammingFailure";
        case 0x73:
            return "wrongBlockSequenceCounter";
        case 0x78:
            return "requestCorrectlyReceived-ResponsePending";
        case 0x7E:
            return "subFunctionNotSupportedInActiveSession";
        case 0x7F:
            return "serviceNotSupportedInActiveSession";
        case 0x81:
            return "rpmTooHigh";
        case 0x82:
            return "rpmTooLow";
        case 0x83:
            return "engineIsRunning";
        case 0x84:
            return "engineIsNotRunning";
        case 0x85:
            return "engineRunTimeTooLow";
        case 0x86:
            return "temperatureTooHigh";
        case 0x87:
            return "temperatureTooLow";
        case 0x88:
            return "vehicleSpeedTooHigh";
        case 0x89:
            return "vehicleSpeedTooLow";
        case 0x8A:
            return "throttle/PedalTooHigh";
        case 0x8B:
            return "throttle/PedalTooLow";
        case 0x8C:
            return "transmissionRangeNotInNeutral";
        case 0x8D:
            return "transmissionRangeNotInGear";
        case 0x8F:
            return "brakeSwitch(es)NotClosed";
        case 0x90:
            return "shifterLeverNotInPark";
        case 0x91:
            return "torqueConverterClutchLocked";
        case 0x92:
            return "voltageTooHigh";
        case 0x93:
            return "voltageTooLow";
    }
    return "unknown";
}

const char *service_name(uint8_t service) {
    switch (service) {
        case sid::kDiagnosticSessionControl:
            return "DiagnosticSessionControl";
        case sid::kEcuReset:
            return "ECUReset";
        case sid::kClearDiagnosticInformation:
            return "ClearDiagnosticInformation";
        case sid::kReadDtcInformation:
            return "ReadDTCInformation";
        case sid::kReadDataByIdentifier:
            return "ReadDataByIdentifier";
        case sid::kReadMemoryByAddress:
            return "ReadMemoryByAddress";
        case sid::kSecurityAccess:
            return "SecurityAccess";
        case sid::kCommunicationControl:
            return "CommunicationControl";
        case sid::kWriteDataByIdentifier:
            return "WriteDataByIdentifier";
        case sid::kInputOutputControl:
            return "InputOutputControlByIdentifier";
        case sid::kRoutineControl:
            return "RoutineControl";
        case sid::kRequestDownload:
            return "RequestDownload";
        case sid::kTransferData:
            return "TransferData";
        case sid::kRequestTransferExit:
            return "RequestTransferExit";
        case sid::kTesterPresent:
            return "TesterPresent";
        case sid::kControlDtcSetting:
            return "ControlDTCSetting";
    }
    return "unknown";
}

namespace {

struct SizedName {
    uint16_t id;
    int size;
    const char *name;
};

constexpr SizedName kDids[] = {
    {0xF190, 17, "VIN"},
    {0xF405, 1, "engine coolant temperature"},
    {0xF40C, 2, "engine speed"},
    {0xF40D, 1, "vehicle speed"},
    {0xF411, 1, "throttle position"},
    {0xF41F, 2, "run time since engine start"},
    {0xF42F, 1, "fuel tank level"},
    {0xF442, 2, "control module voltage"},
    {0xF446, 1, "ambient air temperature"},
};

constexpr SizedName kExtendedRecords[] = {
    {0x01, 1, "occurrence counter"},
    {0x02, 1, "aging counter"},
    {0x03, 1, "aged counter"},
    {0x04, 1, "maximum fault detection counter"},
};

const SizedName *find(const SizedName *table, size_t count, uint16_t id) {
    for (size_t i = 0; i < count; ++i) {
        if (table[i].id == id)
            return &table[i];
    }
    return nullptr;
}

}  // namespace

int did_size(uint16_t did) {
    const SizedName *entry = find(kDids, sizeof(kDids) / sizeof(kDids[0]), did);
    return entry != nullptr ? entry->size : -1;
}

const char *did_name(uint16_t did) {
    const SizedName *entry = find(kDids, sizeof(kDids) / sizeof(kDids[0]), did);
    return entry != nullptr ? entry->name : nullptr;
}

int extended_record_size(uint8_t record) {
    const SizedName *entry =
        find(kExtendedRecords, sizeof(kExtendedRecords) / sizeof(kExtendedRecords[0]), record);
    return entry != nullptr ? entry->size : -1;
}

const char *extended_record_name(uint8_t record) {
    const SizedName *entry =
        find(kExtendedRecords, sizeof(kExtendedRecords) / sizeof(kExtendedRecords[0]), record);
    return entry != nullptr ? entry->name : nullptr;
}

uint32_t builtin_key(uint8_t level, uint32_t seed) {
    uint32_t mixed = seed ^ 0x5A17C3E9u;
    unsigned shift = level % 32u;
    uint32_t rotated = shift == 0 ? mixed : (mixed << shift | mixed >> (32u - shift));
    return rotated + static_cast<uint32_t>(level) * 0x01010101u;
}

}  // namespace uozuds
