// The links of the running agent, each opened once and kept for the next
// request: DoIP connections shared per gateway and tester address, one ISO-TP
// socket per CAN ECU (interface and id pair). Gateways named by VIN or EID
// are found by vehicle identification first.
#ifndef UOZ_TOOLS_AGENT_TRANSPORT_LINKS_H
#define UOZ_TOOLS_AGENT_TRANSPORT_LINKS_H

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "agent_settings.h"
#include "diag_agent.h"
#include "doip_client.h"

namespace uozagent {

class TransportLinks : public LinkProvider {
  public:
    explicit TransportLinks(const AgentSettings &settings) : settings_(settings) {}
    std::shared_ptr<EcuLink> link_for(const EcuTarget &target, std::string *error) override;
    // The shared connection to a gateway for a tester address.
    std::shared_ptr<DoipConnection> connection(const DoipAddress &address);
    // The ECU's ISO-TP link, opened on first use; nullptr with *error when
    // it cannot be (tried again on the next request).
    std::shared_ptr<EcuLink> can_link(const CanAddress &address, std::string *error);
    std::shared_ptr<EcuLink> functional_link(const CanAddress &address,
                                             std::string *error) override;
    // Closes every connection, so that requests under way end at once.
    void close_all();
    // Finds every gateway the settings name by VIN or EID, at start; one
    // that does not answer is a warning (it is looked for again on use).
    void find_gateways();

  private:
    // The address of a gateway named by VIN or EID: the one found before
    // while its connection lasts, else found again. False with *error when
    // no entity answered.
    bool find_gateway(DoipAddress *address, std::string *error);
    // False with *error when the gateway says the power mode is not ready.
    bool power_mode_allows(const DoipAddress &address, std::string *error);

    const AgentSettings settings_;
    std::mutex lock_;
    std::map<std::string, std::shared_ptr<DoipConnection>> connections_;
    std::map<std::string, std::shared_ptr<EcuLink>> can_links_;
    std::map<std::string, std::shared_ptr<EcuLink>> functional_links_;
    std::set<std::string> missing_can_logged_;
    std::mutex finding_;  // one discovery at a time
    struct Found {
        std::string host;
        uint16_t port = 0;
        Clock::time_point when;
    };
    std::map<std::string, Found> found_;  // by the identity's text
};

}  // namespace uozagent

#endif
