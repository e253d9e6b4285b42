// Feeds arbitrary text as a remote command document through everything that
// UDSOverZelko_ExecuteRemoteCommand does before it sends: parsing, the
// validity period, routine selection (custom and pre-defined) and the query.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "UDSOverZelko/remote_command.h"
#include "fuzz_handle.h"

namespace {

// A built query must be one the agent can read: a JSON object that names the
// ECU by the document's text and carries a routine member.
void check_request(const Request &request) {
    if (request.wait == nullptr || request.reply_id == nullptr || request.message == nullptr)
        abort();
    const char *text = json_object_to_json_string(request.message.get());
    JsonPtr reparsed(json_tokener_parse(text));
    json_object *body = nullptr;
    if (!reparsed || !json_object_object_get_ex(reparsed.get(), "body", &body) ||
        !json_object_object_get_ex(body, "routine", nullptr) ||
        !json_object_object_get_ex(body, "targetAddress", nullptr)) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static UDSOverZelkoHandle *handle = uozfuzz::offline_handle();
    // The document is NUL-terminated text; an embedded NUL ends it early.
    std::string document(reinterpret_cast<const char *>(data), size);
    Request request;
    int rc = build_remote_command_request(handle, document.c_str(), &request);
    if (rc == UOZ_OK) {
        check_request(request);
    } else if (rc != UOZ_ERR_GENERAL && rc != UOZ_ERR_VALIDITY) {
        abort();
    }
    return 0;
}
