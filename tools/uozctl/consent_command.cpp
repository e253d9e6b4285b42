#include "commands.h"
#include "exit_codes.h"
#include "waiting.h"

namespace uozctl {

namespace {

// The result codes of UDSOverZelkoSendExternalConsent, 1 to 7, as shown.
const char *const kConsentResults[] = {"",
                                       "accepted",
                                       "rejected",
                                       "invalid handle",
                                       "invalid type",
                                       "no reply",
                                       "answer without a status",
                                       "invalid campaign"};

}  // namespace

int run_consent(const Context &context, const std::string &kind, const std::string &campaign) {
    Session session(context);
    if (int rc = session.start(Server::kPolicyAgent))
        return rc;
    int rc = call_with_timeout(session, "waiting for the policy agent", [&] {
        return UDSOverZelkoSendExternalConsent(
            session.handle(), kind == "download" ? CONSENT_DOWNLOAD : CONSENT_INSTALL,
            campaign.c_str());
    });
    if (rc == CONSENT_NO_REPLY)
        return context.output.no_reply("policy agent", context.options.timeout);
    context.output.consent(kind, campaign,
                           rc >= 1 && rc <= 7 ? kConsentResults[rc] : "unknown result");
    return rc == CONSENT_ACCEPTED ? uoztools::kExitOk : uoztools::kExitFailureReported;
}

}  // namespace uozctl
