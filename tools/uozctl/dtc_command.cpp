#include <chrono>

#include "commands.h"
#include "exit_codes.h"
#include "hex_text.h"
#include "waiting.h"

namespace uozctl {

namespace {

// The exit code of a failed read.
int explain_read_failure(const Context &context, const std::string &ecu, int rc, uint32_t report,
                         double waited) {
    const Output &output = context.output;
    if (rc == UOZ_ERR_UNSUPPORTED_SUBFUNCTION) {
        return output.fail(uoztools::kExitInvalidInput,
                           "report " + uozuds::hex_number(report, 2) +
                               " is not supported (supported: 0x01-0x06, 0x09-0x16)");
    }
    // The library reports every other failed exchange as -1; a full wait means no reply.
    if (waited >= UOZ_REPLY_TIMEOUT_SECONDS - 0.5)
        return output.no_reply("diagnostic agent", context.options.timeout);
    // The library also fails a reply that does not answer the read, but the
    // agent's failure answer is by far the likeliest.
    return output.fail(uoztools::kExitFailureReported,
                       ecu + ": the read failed: " + output.agent_failure(ecu));
}

// The ECU an answer came from: its configured name, or the one asked when
// the answer names none (DoIP ECUs are not matched by a CAN request id). The
// agent answers an ECU it could not ask with empty data: a UDS response is
// never empty, so that entry is the ECU's failure, never an empty DTC list.
DtcAnswer answer_of(UDSOverZelkoHandle *handle, const DTCBufferEntry &entry, int32_t asked) {
    DtcAnswer answer;
    answer.address = entry.target_address;
    answer.ecu = entry.ecu_name;
    if (answer.ecu == nullptr && answer.address == 0 && asked != -1)
        answer.address = asked;
    if (answer.ecu == nullptr)
        answer.ecu = UDSOverZelkoGetECUNameFromTargetAddress(handle, answer.address);
    answer.bytes = entry.data;
    answer.length = entry.length;
    answer.failed = entry.length == 0;
    answer.decoded = decode_dtc_response(entry.data, entry.length);
    return answer;
}

int read_dtcs(const Session &session, int32_t address, const DtcRequest &request,
              DTCBuffer *buffer) {
    UDSOverZelkoHandle *handle = session.handle();
    return call_with_timeout(session, "reading DTCs", [&] {
        return request.by_dtc_or_record ? UDSOverZelko_ReadDTCInfoByDTCAndRecordNumber(
                                              handle, address, request.report, request.dtc,
                                              static_cast<uint8_t>(request.record), buffer)
                                        : UDSOverZelko_ReadDTCInfo(handle, address, request.report,
                                                                   request.mask, buffer);
    });
}

// Shows the answers and says which ECUs failed; the exit code.
int show_answers(const Context &context, const Session &session, int32_t asked,
                 const DTCBuffer &buffer, int total_bytes) {
    std::vector<DtcAnswer> answers;
    std::string failed;
    size_t failures = 0;
    bool negative = false;
    for (int32_t i = 0; i < buffer.count; ++i) {
        if (buffer.entries[i] == nullptr)
            continue;
        answers.push_back(answer_of(session.handle(), *buffer.entries[i], asked));
        if (answers.back().failed)
            answers.back().error = context.output.agent_failure_of(static_cast<size_t>(i));
        negative = negative || answers.back().decoded.negative;
        if (answers.back().failed) {
            failed += (failures++ == 0 ? "" : ", ") + answers.back().label();
        }
    }
    int code = failures > 0 || negative ? uoztools::kExitFailureReported : uoztools::kExitOk;
    context.output.dtc_answers(answers, buffer.count, total_bytes, code);
    if (failures > 0) {
        fprintf(stderr, "uozctl: the read failed on %zu of %d ECUs: %s\n", failures, buffer.count,
                failed.c_str());
    }
    return code;
}

}  // namespace

int run_dtc_read(const Context &context, const DtcRequest &request) {
    Session session(context);
    int32_t address = 0;
    if (int rc = session.start_for_ecu(request.ecu, &address))
        return rc;
    DTCBuffer buffer{};
    auto started = std::chrono::steady_clock::now();
    int rc = read_dtcs(session, address, request, &buffer);
    double waited =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    int code = rc < 0 ? explain_read_failure(context, session.ecu_title(address), rc,
                                             request.report, waited)
                      : show_answers(context, session, address, buffer, rc);
    UDSOverZelko_FreeDTCBuffer(&buffer);
    return code;
}

int run_dtc_clear(const Context &context, const std::string &ecu, uint32_t group) {
    Session session(context);
    int32_t address = 0;
    if (int rc = session.start_for_ecu(ecu, &address))
        return rc;
    CommandResponse response{};
    int rc = call_with_timeout(session, "clearing DTCs", [&] {
        return UDSOverZelkoClearDTC(session.handle(), address, group, &response);
    });
    return show_routine_response(context, rc, &response, "clear DTCs");
}

}  // namespace uozctl
