#include "commands.h"
#include "exit_codes.h"

namespace uozctl {

int run_ecus(const Context &context, bool check_only) {
    const std::string &file = context.options.config;
    ConfigReport report = check_config(file);
    if (!report.file_error.empty())
        return context.output.fail(uoztools::kExitCannotStart, report.file_error);
    if (!check_only) {
        context.output.ecus(report, file);
        return uoztools::kExitOk;
    }
    int code = report.all_usable() ? uoztools::kExitOk : uoztools::kExitInvalidInput;
    context.output.config_check(report, file, code);
    return code;
}

}  // namespace uozctl
