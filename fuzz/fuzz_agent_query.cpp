// The agent's handling of outside input: a query text from the bus and the
// bytes an ECU answers with. The input is the query, a NUL, then the answer
// given to every request (an empty answer: the ECU stays silent).
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "diag_agent.h"

namespace {

class ReplayLink : public uozagent::EcuLink {
  public:
    explicit ReplayLink(uozagent::Bytes answer) : answer_(std::move(answer)) {}
    bool send(const uozagent::Bytes &, uozagent::Clock::time_point, std::string *) override {
        pending_ = !answer_.empty();
        return true;
    }
    bool receive(uozagent::Clock::time_point, uozagent::Bytes *response, std::string *,
                 bool *timed_out) override {
        if (!pending_) {
            *timed_out = true;
            return false;
        }
        pending_ = false;
        *response = answer_;
        return true;
    }

  private:
    uozagent::Bytes answer_;
    bool pending_ = false;
};

class ReplayLinks : public uozagent::LinkProvider {
  public:
    explicit ReplayLinks(uozagent::Bytes answer) : answer_(std::move(answer)) {}
    std::shared_ptr<uozagent::EcuLink> link_for(const uozagent::EcuTarget &,
                                                std::string *) override {
        return std::make_shared<ReplayLink>(answer_);
    }

  private:
    uozagent::Bytes answer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t *end = static_cast<const uint8_t *>(memchr(data, 0, size));
    size_t query_length = end != nullptr ? static_cast<size_t>(end - data) : size;
    std::string query(reinterpret_cast<const char *>(data), query_length);
    uozagent::Bytes answer;
    if (end != nullptr)
        answer.assign(end + 1, data + size);
    uozagent::AgentSettings settings;
    settings.timing.busy_delay = uozagent::Millis(0);
    settings.gateway.enabled = true;
    settings.gateway.all = true;
    settings.gateway.host = "127.0.0.1";
    ReplayLinks links(answer);
    uozagent::DiagAgent agent(settings, links, uozagent::KeyAlgorithms());
    agent.answer_query(query);
    return 0;
}
