#include "commands.h"
#include "exit_codes.h"
#include "waiting.h"

namespace uozctl {

int run_version(const Context &context, const std::string &ecu) {
    const Output &output = context.output;
    Session session(context);
    int32_t address = 0;
    if (int rc = session.start_for_ecu(ecu, &address))
        return rc;
    if (address == -1)
        return output.fail(uoztools::kExitInvalidInput, "name one ECU: 'all' has no version");
    // Without a description the library has no query to send.
    const EntryReport *entry = session.loaded_entry(address);
    if (entry != nullptr && entry->version_source == "-") {
        return output.fail(uoztools::kExitInvalidInput,
                           session.ecu_title(address) +
                               " has no \"ecu_version\" description in the configuration: there "
                               "is no version to read");
    }
    char version[1024] = {0};
    int rc = call_with_timeout(session, "reading the version", [&] {
        return UDSOverZelko_ReadECUVersionInformation(session.handle(), address, version,
                                                      sizeof(version) - 1);
    });
    if (rc == UOZ_ERR_TIMEOUT)
        return output.no_reply("diagnostic agent", context.options.timeout);
    if (rc != 0) {
        return output.fail(uoztools::kExitFailureReported,
                           session.ecu_title(address) + ": cannot read the version: " +
                               output.agent_failure(session.ecu_title(address)));
    }
    output.version(UDSOverZelkoGetECUNameFromTargetAddress(session.handle(), address), address,
                   version);
    return uoztools::kExitOk;
}

}  // namespace uozctl
