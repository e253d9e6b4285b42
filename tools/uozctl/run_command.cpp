#include <time.h>

#include "commands.h"
#include "document_check.h"
#include "exit_codes.h"
#include "files.h"
#include "waiting.h"

namespace uozctl {

int run_document(const Context &context, const std::string &path) {
    const Output &output = context.output;
    std::string document, error;
    if (!uoztools::read_text_file(path, &document, &error))
        return output.fail(uoztools::kExitInvalidInput, error);
    ConfigReport config = check_config(context.options.config);
    if (!config.file_error.empty())
        return output.fail(uoztools::kExitCannotStart, config.file_error);
    std::string problem = check_document(document, config, time(nullptr));
    if (!problem.empty())
        return output.fail(uoztools::kExitInvalidInput, path + ": " + problem);
    Session session(context);
    if (int rc = session.start())
        return rc;
    CommandResponse response{};
    int rc = call_with_timeout(session, "running the remote command", [&] {
        return UDSOverZelko_ExecuteRemoteCommand(session.handle(), document.c_str(),
                                                 static_cast<uint32_t>(document.size() + 1),
                                                 &response);
    });
    return show_routine_response(context, rc, &response, "remote command");
}

}  // namespace uozctl
