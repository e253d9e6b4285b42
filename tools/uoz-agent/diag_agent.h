// The diagnostic agent proper: a query in, UDS requests to each addressed
// ECU over its link, the ECUs' own answers out as the reply the library
// decodes. ECUs of one query are asked in parallel; each ECU has at most one
// request outstanding, whichever query it belongs to.
#ifndef UOZ_TOOLS_AGENT_DIAG_AGENT_H
#define UOZ_TOOLS_AGENT_DIAG_AGENT_H

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "agent_settings.h"
#include "ecu_link.h"
#include "key_algorithm.h"
#include "query_targets.h"
#include "session_keeper.h"

namespace uozagent {

// Gives the link to an ECU; nullptr with *error when there is none (no CAN
// on this machine, a gateway the settings do not allow).
class LinkProvider {
  public:
    virtual ~LinkProvider() = default;
    virtual std::shared_ptr<EcuLink> link_for(const EcuTarget &target, std::string *error) = 0;
    // Sends one single frame to every ECU on the CAN address's interface and
    // functional id (functional_request.h); nullptr: the ECUs are asked one by one.
    virtual std::shared_ptr<EcuLink> functional_link(const CanAddress &, std::string *error) {
        *error = "no functional addressing";
        return nullptr;
    }
};

// One ECU while the agent holds it: its link and what the UDS layer keeps
// of it between requests.
struct EcuAccess {
    const EcuTarget &target;
    EcuLink &link;
    EcuState &state;
};

class DiagAgent {
  public:
    DiagAgent(AgentSettings settings, LinkProvider &links, KeyAlgorithms keys);

    // The reply text to a "zelko.skyharbor-query", or "" when the text is
    // none. Blocks until every addressed ECU has answered or failed, within
    // the settings' overall deadline per request.
    std::string answer_query(const std::string &query);

  private:
    struct EcuResult;
    json_object *dtc_answer(json_object *uds, const std::vector<EcuTarget> &targets, bool broadcast,
                            std::string *error);
    json_object *version_answer(json_object *version, const std::vector<EcuTarget> &targets,
                                std::string *error);
    json_object *routine_answer(json_object *routine, const std::vector<EcuTarget> &targets,
                                std::string *error);
    // Runs job on every target at once (but those skipped), each under its ECU's lock.
    template <typename Job>
    void for_each_ecu(const std::vector<EcuTarget> &targets, Job job,
                      const std::vector<bool> &skipped = {});
    std::shared_ptr<EcuSlot> ecu_slot(const std::string &key);

    AgentSettings settings_;
    LinkProvider &links_;
    KeyAlgorithms keys_;
    std::mutex locks_lock_;
    // One request at a time per ECU, whichever query it belongs to.
    std::map<std::string, std::shared_ptr<EcuSlot>> ecu_slots_;
    SessionKeeper keeper_;  // last: it stops before the rest goes
};

}  // namespace uozagent

#endif
