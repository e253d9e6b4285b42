#include "broker_link.h"

#include <stdio.h>
#include <systemd/sd-daemon.h>

#include "bus_probe.h"
#include "kt5bus/kt5bus.h"
#include "udsoverzelko.h"

namespace uozagent {

namespace {

using Clock = std::chrono::steady_clock;

// Time the broker probe may take after a failed attempt.
constexpr int kProbeTimeoutMs = 2000;
// Time without a connection and without a failure after which the agent
// says it is still trying.
constexpr std::chrono::seconds kQuietStart{10};
// While retrying, the same reason is told again after this long.
constexpr std::chrono::seconds kRepeatReason{60};

// Tells each reason when it first comes and again every kRepeatReason.
class ReasonTeller {
  public:
    void tell(const std::string &reason) {
        Clock::time_point now = Clock::now();
        if (reason == last_ && now - told_at_ < kRepeatReason)
            return;
        last_ = reason;
        told_at_ = now;
        fprintf(stderr, "uoz-agent: %s; trying again\n", reason.c_str());
        sd_notifyf(0, "STATUS=%s; trying again", reason.c_str());
    }

  private:
    std::string last_;
    Clock::time_point told_at_;
};

}  // namespace

bool wait_connected(const BrokerTarget &broker, bool keep_trying, Lifetime &lifetime) {
    size_t failures_seen = 0;
    Clock::time_point quiet_until = Clock::now() + kQuietStart;
    ReasonTeller teller;
    for (;;) {
        switch (lifetime.wait_event(&failures_seen, quiet_until)) {
            case Lifetime::Event::kRunning:
            case Lifetime::Event::kStop:
                return true;
            case Lifetime::Event::kQuiet:
                fprintf(stderr, "uoz-agent: not connected to %s yet; still trying\n",
                        broker.text().c_str());
                quiet_until = Clock::now() + std::chrono::hours(24 * 365);
                break;
            case Lifetime::Event::kFailed: {
                uozbus::ProbeResult probe = uozbus::probe_broker(
                    broker.host, broker.port, broker.identity_dir, kProbeTimeoutMs);
                if (probe.ok)
                    break;  // it accepts now: the client's next attempt will tell
                if (!keep_trying) {
                    fprintf(stderr, "uoz-agent: %s\n", probe.reason.c_str());
                    return false;
                }
                teller.tell(probe.reason);
                break;
            }
        }
    }
}

void LinkLog::status(int status) {
    std::lock_guard<std::mutex> hold(lock_);
    if (status == KT5BUS_STATUS_CONNECTION_BROKE && !down_) {
        down_ = true;
        down_since_ = Clock::now();
        UOZ_DBGLOG(UOZ_LOG_WARN, "uoz-agent: lost the broker at %s; reconnecting", broker_.c_str());
        sd_notifyf(0, "STATUS=lost the broker at %s; reconnecting", broker_.c_str());
    } else if (status == KT5BUS_STATUS_RUNNING && down_) {
        down_ = false;
        double seconds = std::chrono::duration<double>(Clock::now() - down_since_).count();
        UOZ_DBGLOG(UOZ_LOG_INFO, "uoz-agent: connected to the broker at %s again after %.1f s",
                   broker_.c_str(), seconds);
        sd_notifyf(0, "STATUS=connected to %s", broker_.c_str());
    }
}

}  // namespace uozagent
