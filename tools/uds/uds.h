// The UDS room: everything the tools know of UDS (ISO 14229-1), written once
// and shared by the diagnostic agent (client), the ECU simulator (server) and
// uozctl (reader of answers):
//   uds.h           services, negative response codes, sessions, timing,
//                   known DIDs and records, the built-in key algorithm;
//   dtc_reports.h   the ReadDTCInformation report types, one row each, and
//                   their request bytes;
//   dtc_response.h  ReadDTCInformation answers decoded;
//   hex_text.h      bytes and numbers as hexadecimal text, both ways.
// Nothing here sends or receives: the transports are the programs' own.
#ifndef UOZ_TOOLS_UDS_H
#define UOZ_TOOLS_UDS_H

#include <stddef.h>
#include <stdint.h>

namespace uozuds {

// Service identifiers of requests; a positive response is the service id
// plus kPositiveOffset, a negative one is 7F SID NRC.
namespace sid {
constexpr uint8_t kDiagnosticSessionControl = 0x10;
constexpr uint8_t kEcuReset = 0x11;
constexpr uint8_t kClearDiagnosticInformation = 0x14;
constexpr uint8_t kReadDtcInformation = 0x19;
constexpr uint8_t kReadDataByIdentifier = 0x22;
constexpr uint8_t kReadMemoryByAddress = 0x23;
constexpr uint8_t kSecurityAccess = 0x27;
constexpr uint8_t kCommunicationControl = 0x28;
constexpr uint8_t kWriteDataByIdentifier = 0x2E;
constexpr uint8_t kInputOutputControl = 0x2F;
constexpr uint8_t kRoutineControl = 0x31;
constexpr uint8_t kRequestDownload = 0x34;
constexpr uint8_t kTransferData = 0x36;
constexpr uint8_t kRequestTransferExit = 0x37;
constexpr uint8_t kTesterPresent = 0x3E;
constexpr uint8_t kControlDtcSetting = 0x85;
}  // namespace sid

constexpr uint8_t kPositiveOffset = 0x40;
constexpr uint8_t kNegativeResponse = 0x7F;
// Sub-function bit 7: suppress the positive response.
constexpr uint8_t kSuppressPositiveResponse = 0x80;

// Negative response codes.
namespace nrc {
constexpr uint8_t kGeneralReject = 0x10;
constexpr uint8_t kServiceNotSupported = 0x11;
constexpr uint8_t kSubFunctionNotSupported = 0x12;
constexpr uint8_t kIncorrectMessageLength = 0x13;
constexpr uint8_t kResponseTooLong = 0x14;
constexpr uint8_t kBusyRepeatRequest = 0x21;
constexpr uint8_t kConditionsNotCorrect = 0x22;
constexpr uint8_t kRequestSequenceError = 0x24;
constexpr uint8_t kNoResponseFromSubnet = 0x25;
constexpr uint8_t kFailurePreventsExecution = 0x26;
constexpr uint8_t kRequestOutOfRange = 0x31;
constexpr uint8_t kSecurityAccessDenied = 0x33;
constexpr uint8_t kInvalidKey = 0x35;
constexpr uint8_t kExceededNumberOfAttempts = 0x36;
constexpr uint8_t kRequiredTimeDelayNotExpired = 0x37;
constexpr uint8_t kGeneralProgrammingFailure = 0x72;
constexpr uint8_t kResponsePending = 0x78;
constexpr uint8_t kSubFunctionNotSupportedInActiveSession = 0x7E;
constexpr uint8_t kServiceNotSupportedInActiveSession = 0x7F;
}  // namespace nrc

// Diagnostic sessions (0x10 sub-functions).
namespace session {
constexpr uint8_t kDefault = 0x01;
constexpr uint8_t kProgramming = 0x02;
constexpr uint8_t kExtended = 0x03;
}  // namespace session

// RoutineControl (0x31) sub-functions.
namespace routine {
constexpr uint8_t kStart = 0x01;
constexpr uint8_t kStop = 0x02;
constexpr uint8_t kResults = 0x03;
}  // namespace routine

// Default server timing: P2 in ms, P2* in ms (sent in 10 ms units), S3 in ms.
constexpr uint16_t kDefaultP2Ms = 50;
constexpr uint32_t kDefaultP2StarMs = 5000;
constexpr uint32_t kS3Ms = 5000;

// The ISO name of a negative response code ("requestOutOfRange"), or
// "unknown" for a code not in the table. Never nullptr.
const char *nrc_name(uint8_t code);
// The name of a service ("ReadDTCInformation"), or "unknown".
const char *service_name(uint8_t service);

// Data identifiers and extended data records whose sizes this project's
// vehicles fix: a decoder splits snapshot and extended data with them, the
// simulator checks its vehicle file against them. -1 and nullptr for one not
// in the table (its size is the ECU's own, unknown here).
int did_size(uint16_t did);
const char *did_name(uint16_t did);
int extended_record_size(uint8_t record);
const char *extended_record_name(uint8_t record);

// Length of seeds and keys of the built-in algorithm, in bytes (big-endian).
constexpr size_t kBuiltinSeedLength = 4;

// The built-in security access key algorithm, for the key of `level` (the odd
// request-seed level, 0x01, 0x03, ...) and a 4-byte seed:
//
//   key = rotate_left_32(seed XOR 0x5A17C3E9, level MOD 32) + level * 0x01010101
//
// (modulo 2^32). It guards nothing: it lets a tester and the simulator agree
// on a key that depends on both the seed and the level.
uint32_t builtin_key(uint8_t level, uint32_t seed);

}  // namespace uozuds

#endif
