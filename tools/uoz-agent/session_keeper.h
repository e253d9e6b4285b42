// Keeps an ECU's diagnostic session and security access open between
// queries where the agent settings ask for it. An ECU falls back to its
// default session, locked, after S3 (5 s) without a request; opening the
// session and unlocking again costs requests, and where the ECU counts key
// attempts or delays seeds, time. So while an ECU is in a non-default
// session or unlocked, the keeper sends it a TesterPresent (3E 80 by
// default) every interval, for the time the settings give after its last
// request, and a query that needs that session and level does not open it
// again. The TesterPresent takes its turn with the ECU's requests (the ECU's
// lock; it is skipped, never waited for, while a request holds it), and it
// stops when the time ends, when the ECU falls back to the default session
// (a 10 01, a reset, an NRC that says so) or when it goes unanswered.
#ifndef UOZ_TOOLS_AGENT_SESSION_KEEPER_H
#define UOZ_TOOLS_AGENT_SESSION_KEEPER_H

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ecu_link.h"
#include "query_targets.h"

namespace uozagent {

// One ECU while the agent holds it: requests take turns under `lock`.
struct EcuSlot {
    std::mutex lock;
    EcuState state;  // guarded by lock
};

// Whether a request for `session` (0: any) and security `level` can go
// without opening the session and unlocking: the keeper holds exactly that.
bool session_is_kept(const EcuState &state, uint8_t session, uint8_t level);

// Whether a negative answer says that the session or the security access the
// agent counted on is gone (0x7E, 0x7F, 0x33).
bool says_session_is_gone(const Bytes &response);

class SessionKeeper {
  public:
    // Sends one request to the ECU as any other (traced, logged), with the
    // ECU's lock held.
    using Send = std::function<UdsOutcome(const EcuTarget &, EcuLink &, EcuState &, const Bytes &)>;

    SessionKeeper(SessionKeeping settings, Send send);
    ~SessionKeeper();
    SessionKeeper(const SessionKeeper &) = delete;
    SessionKeeper &operator=(const SessionKeeper &) = delete;

    // After a request to the ECU, with its lock held: keeps the session from
    // now on when the ECU is in a non-default session or unlocked.
    void after_request(const EcuTarget &target, std::shared_ptr<EcuLink> link,
                       std::shared_ptr<EcuSlot> slot);

  private:
    struct Kept {
        EcuTarget target;
        std::shared_ptr<EcuLink> link;
        std::shared_ptr<EcuSlot> slot;
        Clock::time_point next;
        uint64_t registration = 0;  // which after_request put it here
    };
    void run();
    // One TesterPresent, unless a request holds the ECU; false when the
    // session is no longer kept.
    bool keep_alive(Kept &kept);

    const SessionKeeping settings_;
    const Send send_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::string, Kept> kept_;  // guarded by lock_
    uint64_t registrations_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace uozagent

#endif
