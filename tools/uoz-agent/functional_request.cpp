#include "functional_request.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "isotp_socket.h"
#include "udsoverzelko.h"

namespace uozagent {

namespace {

// One ECU of a group while the group holds it.
struct Member {
    size_t index;  // into the query's targets
    std::shared_ptr<EcuLink> link;
    std::shared_ptr<EcuSlot> slot;
};

template <typename Job>
void in_parallel(size_t count, Job job) {
    std::vector<std::thread> workers;
    for (size_t i = 0; i < count; ++i)
        workers.emplace_back(job, i);
    for (std::thread &worker : workers)
        worker.join();
}

std::string id_text(uint32_t id) {
    char text[16];
    snprintf(text, sizeof(text), "0x%X", id);
    return text;
}

void ask_group(const FunctionalGroup &group, const std::vector<EcuTarget> &targets,
               const Bytes &request, const FunctionalContext &context,
               std::vector<UdsOutcome> *outcomes) {
    std::vector<Member> members;
    for (size_t index : group.members) {
        UdsOutcome &outcome = (*outcomes)[index];
        std::shared_ptr<EcuLink> link = context.links.link_for(targets[index], &outcome.error);
        if (link)
            members.push_back({index, link, context.slot(targets[index].key())});
        else
            context.report(targets[index], "", outcome);
    }
    std::sort(members.begin(), members.end(), [&](const Member &a, const Member &b) {
        return targets[a.index].key() < targets[b.index].key();
    });
    std::vector<std::unique_lock<std::mutex>> held;
    for (const Member &member : members)
        held.emplace_back(member.slot->lock);

    const UdsTiming &timing = context.timing;
    const Clock::time_point deadline = Clock::now() + timing.overall;
    std::vector<char> ready(members.size(), 0);
    in_parallel(members.size(), [&](size_t i) {
        const Member &member = members[i];
        ready[i] = resynchronise_if_needed(*member.link, timing, deadline, member.slot->state,
                                           &(*outcomes)[member.index]);
    });
    std::string error;
    std::shared_ptr<EcuLink> sender = context.links.functional_link(group.address, &error);
    const bool sent = sender && sender->send(request, deadline, &error);
    const std::string how = "functional " + id_text(*group.address.functional_id);
    if (!sent)
        UOZ_DBGLOG(UOZ_LOG_WARN, "%s on %s: %s: the ECUs are asked one by one", how.c_str(),
                   group.address.ifname.c_str(), error.c_str());
    in_parallel(members.size(), [&](size_t i) {
        const Member &member = members[i];
        UdsOutcome &outcome = (*outcomes)[member.index];
        if (!ready[i])
            return;
        if (!sent) {
            outcome = uds_request(*member.link, request, timing, member.slot->state);
            return;
        }
        Bytes response;
        if (!await_answer(*member.link, request, timing, deadline, member.slot->state, &outcome,
                          &response))
            return;
        uint8_t code = 0;
        if (is_negative_response(response, &code) && code == uozuds::nrc::kBusyRepeatRequest) {
            outcome = uds_request(*member.link, request, timing, member.slot->state);
            return;
        }
        outcome.answered = true;
        outcome.response = std::move(response);
    });
    for (const Member &member : members)
        context.report(targets[member.index], sent ? how : "", (*outcomes)[member.index]);
}

}  // namespace

std::vector<FunctionalGroup> functional_groups(const std::vector<EcuTarget> &targets,
                                               const Bytes &request) {
    std::vector<FunctionalGroup> groups;
    if (request.empty() || request.size() > uozcan::kSingleFrameMax)
        return groups;
    std::map<std::string, size_t> group_of;
    std::set<std::string> ecus;  // an ECU listed twice is asked once here
    for (size_t i = 0; i < targets.size(); ++i) {
        const EcuTarget &target = targets[i];
        if (target.transport != Transport::kCan || !target.error.empty() ||
            !target.can.functional_id || target.can.fd_data_length != 0 ||
            target.can.extended_address || !ecus.insert(target.key()).second)
            continue;
        const CanAddress &can = target.can;
        std::string key =
            can.ifname + " " + std::to_string(*can.functional_id) + (can.extended_ids ? " 29" : "");
        auto found = group_of.find(key);
        if (found == group_of.end()) {
            found = group_of.emplace(key, groups.size()).first;
            groups.push_back({can, {}});
        }
        groups[found->second].members.push_back(i);
    }
    return groups;
}

FunctionalRound::FunctionalRound(std::vector<FunctionalGroup> groups,
                                 const std::vector<EcuTarget> &targets, const Bytes &request,
                                 FunctionalContext context, std::vector<UdsOutcome> *outcomes)
    : groups_(std::move(groups)), context_(std::move(context)), members_(targets.size(), false) {
    for (const FunctionalGroup &group : groups_) {
        for (size_t member : group.members)
            members_[member] = true;
    }
    if (groups_.empty())
        return;
    thread_ = std::thread([this, &targets, &request, outcomes] {
        in_parallel(groups_.size(),
                    [&](size_t i) { ask_group(groups_[i], targets, request, context_, outcomes); });
    });
}

void FunctionalRound::wait() {
    if (thread_.joinable())
        thread_.join();
}

}  // namespace uozagent
