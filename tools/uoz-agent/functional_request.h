// A query for all ECUs, on CAN: one functional request per interface and
// functional id ("func-addr"), a single frame that every ECU there hears,
// answered by each ECU on its own response id. The groups run at once, and
// beside the query's other ECUs (DoIP, other interfaces), which are asked
// one by one as usual.
//
// How the answers reach the right place while the agent keeps its rule of
// one ISO-TP socket per ECU, shared in turn under the ECU's lock:
// - The functional request goes out on a send-only socket (single frames to
//   all, no reception registered), so no socket besides the ECU's own ever
//   receives or acknowledges its answer: a segmented answer gets exactly one
//   flow control, from the ECU's own socket.
// - The request is sent only while the agent holds the lock of every ECU of
//   the group (taken in one order, by ECU key, so two such requests cannot
//   wait for each other; a physical request holds one lock only). So no
//   physical request to any of them is in flight: what comes on an ECU's
//   socket from then on answers the functional request, and is checked by
//   its echo like any answer. A physical request to one of them waits for
//   the functional exchange to end, as it waits for any other request.
// - An ECU whose answer to an earlier request may still come is first
//   resynchronised on its own socket (TesterPresent), as before any request.
// - An ECU that stays silent gets its own error and is marked as one whose
//   answer may come late; one that is busy (0x21) is asked again physically.
// A request longer than a single frame, or a functional id that cannot be
// used, leaves the group's ECUs to physical requests.
#ifndef UOZ_TOOLS_AGENT_FUNCTIONAL_REQUEST_H
#define UOZ_TOOLS_AGENT_FUNCTIONAL_REQUEST_H

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "diag_agent.h"

namespace uozagent {

// CAN ECUs of one query that a single functional request asks at once.
struct FunctionalGroup {
    CanAddress address;           // interface, functional id and id width
    std::vector<size_t> members;  // indices into the query's targets
};

// The groups for a request: the CAN ECUs with a functional id, by interface,
// functional id and id width; none when the request needs more than a
// single frame. CAN FD ECUs and ECUs with extended addressing are asked one
// by one: their frames differ from a classic functional single frame.
std::vector<FunctionalGroup> functional_groups(const std::vector<EcuTarget> &targets,
                                               const Bytes &request);

struct FunctionalContext {
    LinkProvider &links;
    std::function<std::shared_ptr<EcuSlot>(const std::string &key)> slot;
    UdsTiming timing;
    // Told each ECU's outcome, and how it was asked ("functional 0x7DF").
    std::function<void(const EcuTarget &, const std::string &how, const UdsOutcome &)> report;
};

// The groups of one query, asked in the background from construction;
// (*outcomes)[member] is filled for each of their members once wait() (or
// the destructor) returns.
class FunctionalRound {
  public:
    FunctionalRound(std::vector<FunctionalGroup> groups, const std::vector<EcuTarget> &targets,
                    const Bytes &request, FunctionalContext context,
                    std::vector<UdsOutcome> *outcomes);
    ~FunctionalRound() { wait(); }
    FunctionalRound(const FunctionalRound &) = delete;
    FunctionalRound &operator=(const FunctionalRound &) = delete;

    // Which targets the round asks; the others are left to physical requests.
    const std::vector<bool> &members() const { return members_; }
    void wait();

  private:
    std::vector<FunctionalGroup> groups_;
    FunctionalContext context_;
    std::vector<bool> members_;
    std::thread thread_;
};

}  // namespace uozagent

#endif
