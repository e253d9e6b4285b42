#include "diag_agent.h"

#include <stdio.h>
#include <string.h>

#include <thread>

#include "functional_request.h"
#include "j1939_version.h"
#include "udsoverzelko.h"

namespace uozagent {

namespace {

using uoztools::JsonPtr;

void add_text(json_object *object, const char *key, const std::string &text) {
    json_object_object_add(object, key, json_object_new_string(text.c_str()));
}

std::string ecu_title(const EcuTarget &target) {
    return target.name.empty() ? target.label : target.name + " (" + target.label + ")";
}

std::string negative_text(const Bytes &response) {
    return "negative response " + hex_text(response);
}

std::string reply_text(json_object *query, json_object *body) {
    JsonPtr reply(json_object_new_object());
    add_text(reply.get(), "type", "zelko.skyharbor-query-update");
    const char *reply_id = text_member(query, "reply-id");
    add_text(reply.get(), "reply-to", reply_id != nullptr ? reply_id : "");
    json_object_object_add(reply.get(), "body", body);
    return json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN);
}

std::string outcome_text(const UdsOutcome &outcome) {
    if (outcome.suppressed)
        return "(no answer: positive response suppressed)";
    return outcome.answered ? hex_text(outcome.response) : outcome.error;
}

// A request's outcome, traced when the settings ask for it; the answers
// discarded as another request's are logged at debug level. how: "" for a
// request to the ECU alone, else how it went ("functional 0x7DF").
void trace_outcome(const EcuTarget &target, const Bytes &request, const std::string &how,
                   const UdsOutcome &outcome, const AgentSettings &settings) {
    const std::string title = ecu_title(target);
    const std::string sent = hex_text(request) + (how.empty() ? "" : " (" + how + ")");
    if (outcome.resynchronised)
        UOZ_DBGLOG(UOZ_LOG_DBG, "%s: TesterPresent first: an earlier request went unanswered",
                   title.c_str());
    for (const Bytes &stale : outcome.stale_answers)
        UOZ_DBGLOG(UOZ_LOG_DBG, "%s: discarded %s: it answers another request", title.c_str(),
                   hex_text(stale).c_str());
    if (settings.trace) {
        printf("trace %s: %s -> %s\n", title.c_str(), sent.c_str(), outcome_text(outcome).c_str());
        fflush(stdout);
    }
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s: %s -> %s", title.c_str(), sent.c_str(),
               outcome_text(outcome).c_str());
}

// One request on an ECU's link, traced.
UdsOutcome traced_request(EcuAccess &ecu, const Bytes &request, const AgentSettings &settings,
                          const UdsTiming &timing) {
    UdsOutcome outcome = uds_request(ecu.link, request, timing, ecu.state);
    trace_outcome(ecu.target, request, "", outcome, settings);
    return outcome;
}

struct CommandRecord {
    std::string name;
    Bytes request;
    Bytes response;
};

// The steps of one routine on one ECU; stops at the first negative answer
// (kept in `done`) or the first failure to get an answer (`error`).
class RoutineRun {
  public:
    RoutineRun(EcuAccess &ecu, const AgentSettings &settings, const KeyAlgorithms &keys)
        : ecu_(ecu), settings_(settings), keys_(keys), timing_(settings.timing) {}

    bool session(uint8_t session) {
        return step("DiagnosticSessionControl", {uozuds::sid::kDiagnosticSessionControl, session});
    }

    // requestSeed, the key of the level's algorithm, sendKey. A zero seed
    // means the level is unlocked already.
    bool unlock(const std::string &name, uint8_t level) {
        if (!step(name, {uozuds::sid::kSecurityAccess, level}))
            return false;
        Bytes seed;
        if (!seed_of(done.back().response, level, &seed)) {
            error = "the answer to requestSeed holds no seed: " + hex_text(done.back().response);
            return false;
        }
        bool unlocked = true;
        for (uint8_t byte : seed)
            unlocked = unlocked && byte == 0;
        if (unlocked)
            return true;
        Bytes key;
        if (!keys_.compute(level, seed, &key, &error))
            return false;
        return step(name, send_key_request(level, key));
    }

    // The session and security access a routine asks for: opened and
    // unlocked, or none of it where the session keeper holds exactly that.
    bool prepare(const SecurityRequest &security) {
        if (session_is_kept(ecu_.state, security.session, security.level)) {
            reused_session = true;
            return true;
        }
        return (security.session == 0 || session(security.session)) &&
               unlock("SecurityAccess", security.level);
    }

    // A command refused because the kept session or access was gone after
    // all: the session is opened and unlocked, and the command sent once more.
    bool retry_after_lost_session(const SecurityRequest &security, const UdsCommand &command) {
        if (!reused_session || !stopped_by_ecu || !says_session_is_gone(done.back().response))
            return false;
        reused_session = false;
        stopped_by_ecu = false;
        return prepare(security) && this->command(command);
    }

    bool command(const UdsCommand &command) {
        if (is_seed_request(command.request))
            return unlock(command.name, command.request[1]);
        return step(command.name, command.request);
    }

    std::vector<CommandRecord> done;
    std::string error;
    bool stopped_by_ecu = false;
    bool reused_session = false;  // the kept session went without opening it

  private:
    bool step(const std::string &name, const Bytes &request) {
        UdsOutcome outcome = traced_request(ecu_, request, settings_, timing_);
        if (!outcome.answered) {
            error = name + ": " + outcome.error;
            return false;
        }
        uint32_t p2 = 0, p2_star = 0;
        if (session_timing(outcome.response, &p2, &p2_star))
            timing_ = timing_for_ecu(settings_.timing, Millis(p2), Millis(p2_star));
        done.push_back({name, request, outcome.response});
        stopped_by_ecu = is_negative_response(outcome.response);
        return !stopped_by_ecu;
    }

    EcuAccess &ecu_;
    const AgentSettings &settings_;
    const KeyAlgorithms &keys_;
    UdsTiming timing_;  // the ECU's own once it has announced it
};

json_object *commands_json(const std::vector<CommandRecord> &done) {
    json_object *list = json_object_new_array();
    for (const CommandRecord &record : done) {
        json_object *item = json_object_new_object();
        add_text(item, "command", record.name);
        add_text(item, "request", hex_text(record.request));
        add_text(item, "response", hex_text(record.response));
        json_object_array_add(list, item);
    }
    return list;
}

}  // namespace

DiagAgent::DiagAgent(AgentSettings settings, LinkProvider &links, KeyAlgorithms keys)
    : settings_(std::move(settings)),
      links_(links),
      keys_(std::move(keys)),
      keeper_(settings_.sessions, [this](const EcuTarget &target, EcuLink &link, EcuState &state,
                                         const Bytes &request) {
          EcuAccess ecu{target, link, state};
          return traced_request(ecu, request, settings_, settings_.timing);
      }) {}

std::shared_ptr<EcuSlot> DiagAgent::ecu_slot(const std::string &key) {
    std::lock_guard<std::mutex> hold(locks_lock_);
    std::shared_ptr<EcuSlot> &slot = ecu_slots_[key];
    if (!slot)
        slot = std::make_shared<EcuSlot>();
    return slot;
}

// Job is called as job(index, &ecu, "") with the target held, or as
// job(index, nullptr, error) when the ECU cannot be reached at all.
template <typename Job>
void DiagAgent::for_each_ecu(const std::vector<EcuTarget> &targets, Job job,
                             const std::vector<bool> &skipped) {
    auto run = [&](size_t index) {
        const EcuTarget &target = targets[index];
        std::string error = target.error;
        std::shared_ptr<EcuLink> link;
        if (error.empty())
            link = links_.link_for(target, &error);
        if (!link) {
            UOZ_DBGLOG(UOZ_LOG_DBG, "%s: %s", ecu_title(target).c_str(), error.c_str());
            job(index, nullptr, error);
            return;
        }
        std::shared_ptr<EcuSlot> slot = ecu_slot(target.key());
        std::lock_guard<std::mutex> one_request_at_a_time(slot->lock);
        EcuAccess ecu{target, *link, slot->state};
        job(index, &ecu, error);
        keeper_.after_request(target, link, slot);
    };
    if (targets.size() == 1) {
        if (skipped.empty() || !skipped[0])
            run(0);
        return;
    }
    std::vector<std::thread> workers;
    for (size_t i = 0; i < targets.size(); ++i) {
        if (i >= skipped.size() || !skipped[i])
            workers.emplace_back(run, i);
    }
    for (std::thread &worker : workers)
        worker.join();
}

json_object *DiagAgent::dtc_answer(json_object *uds, const std::vector<EcuTarget> &targets,
                                   bool broadcast, std::string *error) {
    Bytes request = read_dtc_request(uds, error);
    if (request.empty())
        return nullptr;
    std::vector<UdsOutcome> outcomes(targets.size());
    // CAN ECUs of a query for all: one request per bus (functional_request.h),
    // beside the others, asked one by one.
    FunctionalRound together(
        broadcast ? functional_groups(targets, request) : std::vector<FunctionalGroup>(), targets,
        request,
        {links_, [this](const std::string &key) { return ecu_slot(key); }, settings_.timing,
         [&](const EcuTarget &target, const std::string &how, const UdsOutcome &outcome) {
             trace_outcome(target, request, how, outcome, settings_);
         }},
        &outcomes);
    for_each_ecu(
        targets,
        [&](size_t index, EcuAccess *ecu, const std::string &why) {
            if (ecu == nullptr)
                outcomes[index].error = why;
            else
                outcomes[index] = traced_request(*ecu, request, settings_, settings_.timing);
        },
        together.members());
    together.wait();
    // A single ECU that gave no answer fails the whole read; among several,
    // it is an element with empty data and the reason, never "no DTCs".
    if (!broadcast && targets.size() == 1 && !outcomes[0].answered) {
        *error = ecu_title(targets[0]) + ": " + outcomes[0].error;
        return nullptr;
    }
    json_object *elements = json_object_new_array();
    for (size_t i = 0; i < targets.size(); ++i) {
        json_object *element = json_object_new_object();
        add_text(element, "phy-req-id", targets[i].label);
        add_text(element, "data", outcomes[i].answered ? hex_text(outcomes[i].response) : "");
        if (!outcomes[i].answered)
            add_text(element, "error", outcomes[i].error);
        json_object_array_add(elements, element);
    }
    json_object *answer = json_object_new_object();
    json_object_object_add(answer, "data-record", elements);
    return answer;
}

json_object *DiagAgent::version_answer(json_object *version, const std::vector<EcuTarget> &targets,
                                       std::string *error) {
    if (is_j1939_description(version)) {
        std::string text = read_j1939_version(version, targets[0], settings_, error);
        return error->empty() ? json_object_new_string(text.c_str()) : nullptr;
    }
    std::vector<VersionItem> items = version_items(version, error);
    if (items.empty())
        return nullptr;
    if (targets.size() != 1) {
        *error = "a version read is for one ECU";
        return nullptr;
    }
    std::vector<std::string> values;
    for_each_ecu(targets, [&](size_t, EcuAccess *ecu, const std::string &why) {
        if (ecu == nullptr) {
            *error = why;
            return;
        }
        // All DIDs in one request where the answer splits exactly; one
        // request each where it does not, or where the ECU refuses several.
        std::vector<Bytes> answers;
        Bytes together = read_dids_request(items);
        if (!together.empty()) {
            UdsOutcome outcome = traced_request(*ecu, together, settings_, settings_.timing);
            if (!outcome.answered) {
                *error = outcome.error;
                return;
            }
            if (!split_dids_answer(items, outcome.response, &answers))
                answers.clear();
        }
        for (size_t i = 0; i < items.size(); ++i) {
            const VersionItem &item = items[i];
            UdsOutcome outcome;
            if (answers.empty()) {
                outcome =
                    traced_request(*ecu, read_did_request(item.did), settings_, settings_.timing);
            } else {
                outcome.answered = true;
                outcome.response = answers[i];
            }
            if (!outcome.answered) {
                *error = outcome.error;
                return;
            }
            if (is_negative_response(outcome.response)) {
                char did[8];
                snprintf(did, sizeof(did), "%04X", item.did);
                *error = "the ECU refused DID 0x" + std::string(did) + ": " +
                         negative_text(outcome.response);
                return;
            }
            std::string value = did_value_text(item.did, outcome.response, error);
            if (!error->empty())
                return;
            values.push_back(value);
        }
    });
    if (!error->empty()) {
        *error = ecu_title(targets[0]) + ": " + *error;
        return nullptr;
    }
    return json_object_new_string(version_text(items, values).c_str());
}

json_object *DiagAgent::routine_answer(json_object *routine, const std::vector<EcuTarget> &targets,
                                       std::string *error) {
    if (!json_object_is_type(routine, json_type_object)) {
        *error = "the query names no routine to run";
        return nullptr;
    }
    std::vector<UdsCommand> commands = routine_commands(routine, error);
    SecurityRequest security = security_request(routine, error);
    if (commands.empty() || !error->empty())
        return nullptr;
    json_object *results = json_object_new_array();
    std::vector<json_object *> slots(targets.size());
    for_each_ecu(targets, [&](size_t index, EcuAccess *ecu, const std::string &why) {
        json_object *result = json_object_new_object();
        add_text(result, "ecu",
                 targets[index].name.empty() ? targets[index].label : targets[index].name);
        slots[index] = result;
        if (ecu == nullptr) {
            add_text(result, "error", why);
            return;
        }
        RoutineRun run(*ecu, settings_, keys_);
        bool going = !security.wanted || run.prepare(security);
        for (size_t i = 0; going && i < commands.size(); ++i) {
            going = run.command(commands[i]) ||
                    (security.wanted && run.retry_after_lost_session(security, commands[i]));
        }
        add_text(result, "response", run.done.empty() ? "" : hex_text(run.done.back().response));
        json_object_object_add(result, "commands", commands_json(run.done));
        if (!run.error.empty())
            add_text(result, "error", run.error);
        else if (run.stopped_by_ecu)
            add_text(result, "error",
                     run.done.back().name + ": " + negative_text(run.done.back().response));
    });
    for (json_object *slot : slots)
        json_object_array_add(results, slot);
    json_object *answer = json_object_new_object();
    const char *name = text_member(routine, "name");
    add_text(answer, "name", name != nullptr ? name : "");
    json_object_object_add(answer, "results", results);
    return answer;
}

std::string DiagAgent::answer_query(const std::string &query_text) {
    JsonPtr query(json_tokener_parse(query_text.c_str()));
    const char *type = text_member(query.get(), "type");
    json_object *body = nullptr;
    if (type == nullptr || strcmp(type, "zelko.skyharbor-query") != 0 ||
        !json_object_object_get_ex(query.get(), "body", &body)) {
        return "";
    }
    bool broadcast = false;
    std::vector<EcuTarget> targets = query_targets(body, settings_, &broadcast);
    const char *address = text_member(body, "targetAddress");
    json_object *answer = json_object_new_object();
    // A query to all ECUs is answered with "-1", whatever form it was sent in.
    add_text(answer, "targetAddress", broadcast ? "-1" : (address != nullptr ? address : ""));
    std::string error;
    json_object *member = nullptr;
    if (targets.empty()) {
        error = "the query addresses no ECU the agent can reach (no transport block)";
    } else if (json_object_object_get_ex(body, "uds", &member)) {
        if (json_object *uds = dtc_answer(member, targets, broadcast, &error))
            json_object_object_add(answer, "uds", uds);
    } else if (json_object_object_get_ex(body, "version", &member)) {
        if (json_object *version = version_answer(member, targets, &error))
            json_object_object_add(answer, "version", version);
    } else if (json_object_object_get_ex(body, "routine", &member)) {
        if (json_object *routine = routine_answer(member, targets, &error))
            json_object_object_add(answer, "routine", routine);
    } else {
        error = "the query asks for nothing the agent knows (\"uds\", \"version\", \"routine\")";
    }
    if (!error.empty()) {
        UOZ_DBGLOG(UOZ_LOG_WARN, "query to %s failed: %s", address ? address : "?", error.c_str());
        add_text(answer, "error", error);
    }
    return reply_text(query.get(), answer);
}

}  // namespace uozagent
