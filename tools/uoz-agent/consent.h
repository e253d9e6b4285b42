// The policy agent's answer to an external-consent request.
#ifndef UOZ_TOOLS_AGENT_CONSENT_H
#define UOZ_TOOLS_AGENT_CONSENT_H

#include <string>

namespace uozagent {

enum class ConsentPolicy { kAccept, kReject, kAsk };

// The answer to a "zelko.external-consent" message under the policy, or ""
// when the text is none; ask is used for ConsentPolicy::kAsk and returns
// true to accept.
std::string answer_consent(const std::string &message, ConsentPolicy policy,
                           bool (*ask)(const std::string &campaign));

}  // namespace uozagent

#endif
