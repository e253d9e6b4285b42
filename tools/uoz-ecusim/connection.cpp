#include "connection.h"

#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>

#include <algorithm>

#include "hex_text.h"
#include "stream.h"
#include "uds.h"

namespace uozecusim {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint16_t kFirstTesterAddress = 0x0E00;
constexpr uint16_t kLastTesterAddress = 0x0FFF;

// A poll timeout that ends just after `due` (never before it: a timer that
// is due exactly then would otherwise be checked too early, again and again).
int milliseconds_until(steady_clock::time_point due, steady_clock::time_point now) {
    auto left = std::chrono::duration_cast<milliseconds>(due - now).count() + 1;
    return static_cast<int>(std::max<long long>(0, std::min<long long>(left, 60000)));
}

bool known_activation_type(uint8_t type) {
    return type == uozdoip::routing::kTypeDefault || type == uozdoip::routing::kTypeWwhObd ||
           type == uozdoip::routing::kTypeCentralSecurity;
}

}  // namespace

Connection::Connection(DoipEntity &entity, uoztools::ScopedFd fd, std::string peer, bool tls)
    : entity_(entity), peer_(std::move(peer)) {
    if (tls) {
        auto stream = std::make_unique<uozdoip::TlsStream>(entity_.tls_context(), std::move(fd));
        tls_ = stream.get();
        stream_ = std::move(stream);
    } else {
        stream_ = uozdoip::plain_stream(std::move(fd));
    }
}

Connection::~Connection() {
    close();
    join();
}

void Connection::start() {
    last_received_ = steady_clock::now();
    reader_ = std::thread([this] { read_loop(); });
}

void Connection::close() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        closing_ = true;
    }
    wake_.notify_all();
    stream_->shutdown();
}

void Connection::join() {
    if (reader_.joinable())
        reader_.join();
}

void Connection::trace(const std::string &line) {
    if (entity_.settings().trace)
        entity_.log(peer_ + ": " + line);
}

void Connection::read_loop() {
    uozdoip::FrameReader reader;
    auto on_message = [this](const uozdoip::Message &message) { return handle(message); };
    auto send_nack = [this](uint8_t code) {
        trace(code == uozdoip::generic_nack::kIncorrectPattern
                  ? "bad protocol version pair: generic NACK, closing"
                  : "message too large: generic NACK");
        send(uozdoip::encode_generic_nack(code, version_));
    };
    bool by_tester = false;
    for (bool open = shake_hands(); open && !closing_;) {
        steady_clock::time_point now = steady_clock::now();
        pollfd wait_for{stream_->fd(), POLLIN, 0};
        int ready =
            stream_->buffered() ? 1 : poll(&wait_for, 1, milliseconds_until(next_timer(), now));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0) {
            open = check_alive_timers(steady_clock::now());
            continue;
        }
        uozdoip::StreamRead result =
            ready < 0 ? uozdoip::StreamRead::kFailed
                      : uozdoip::read_messages(*stream_, reader, on_message, send_nack);
        last_received_ = steady_clock::now();
        open = result == uozdoip::StreamRead::kOpen;
        if (result == uozdoip::StreamRead::kEnded || result == uozdoip::StreamRead::kFailed) {
            by_tester = !closing_;
            if (by_tester)
                trace("connection closed by the tester");
        }
    }
    if (!by_tester)
        trace("connection closed");
    close();
    for (auto &worker : workers_) {
        if (worker.second->thread.joinable())
            worker.second->thread.join();
    }
    if (activated_)
        entity_.release_tester(tester_, this);
    finished_ = true;
    entity_.connection_finished();
}

// The TLS handshake, within the time a tester has to activate routing;
// true at once on plain TCP.
bool Connection::shake_hands() {
    if (tls_ == nullptr)
        return true;
    std::string error;
    auto deadline = steady_clock::now() + milliseconds(entity_.settings().initial_inactivity_ms);
    if (!tls_->accept(deadline, &error)) {
        trace(error);
        return false;
    }
    trace("TLS: " + tls_->description() +
          (tls_->peer_authenticated() ? ", tester certificate checked" : ""));
    return true;
}

// When the next inactivity or alive check timer of check_alive_timers is due.
steady_clock::time_point Connection::next_timer() const {
    const EntitySettings &settings = entity_.settings();
    if (!activated_)
        return last_received_ + milliseconds(settings.initial_inactivity_ms);
    steady_clock::time_point due = last_received_ + milliseconds(settings.general_inactivity_ms);
    const uint32_t idle_ms = settings.misbehave.alive_check_idle_ms;
    if (idle_ms == 0)
        return due;
    return std::min(due, alive_outstanding_
                             ? alive_sent_ + milliseconds(settings.alive_check_wait_ms)
                             : last_received_ + milliseconds(idle_ms));
}

// Closes an idle connection, and with the alive check switch asks an idle
// tester whether it is still there. False when the connection must close.
bool Connection::check_alive_timers(steady_clock::time_point now) {
    const EntitySettings &settings = entity_.settings();
    auto idle = now - last_received_;
    if (!activated_ && idle > milliseconds(settings.initial_inactivity_ms)) {
        trace("no routing activation in time: closing");
        return false;
    }
    if (activated_ && idle > milliseconds(settings.general_inactivity_ms)) {
        trace("idle for too long: closing");
        return false;
    }
    const uint32_t idle_ms = settings.misbehave.alive_check_idle_ms;
    if (!activated_ || idle_ms == 0)
        return true;
    if (alive_outstanding_) {
        if (now - alive_sent_ <= milliseconds(settings.alive_check_wait_ms))
            return true;
        trace("no alive check response from " + uozuds::hex_number(tester_, 4) + ": closing");
        return false;
    }
    if (idle >= milliseconds(idle_ms)) {
        alive_outstanding_ = true;
        alive_sent_ = now;
        trace("alive check request to " + uozuds::hex_number(tester_, 4));
        return send(uozdoip::encode_alive_check_request(version_));
    }
    return true;
}

bool Connection::handle(const uozdoip::Message &message) {
    switch (message.payload_type) {
        case uozdoip::payload::kRoutingActivationRequest:
            return activate_routing(message);
        case uozdoip::payload::kDiagnosticMessage:
            return diagnostic(message);
        case uozdoip::payload::kAliveCheckResponse: {
            std::optional<uint16_t> source = uozdoip::parse_alive_check_response(message);
            if (!source) {
                send(uozdoip::encode_generic_nack(uozdoip::generic_nack::kInvalidPayloadLength,
                                                  version_));
                return false;
            }
            alive_outstanding_ = false;
            {
                std::lock_guard<std::mutex> hold(lock_);
                alive_answered_ = true;
            }
            wake_.notify_all();
            trace("alive check response from " + uozuds::hex_number(*source, 4));
            return true;
        }
    }
    trace(std::string("unexpected ") + uozdoip::payload_type_name(message.payload_type) +
          ": generic NACK");
    return send(uozdoip::encode_generic_nack(uozdoip::generic_nack::kUnknownPayloadType, version_));
}

bool Connection::activate_routing(const uozdoip::Message &message) {
    std::optional<uozdoip::RoutingActivationRequest> request =
        uozdoip::parse_routing_activation_request(message);
    if (!request) {
        send(uozdoip::encode_generic_nack(uozdoip::generic_nack::kInvalidPayloadLength,
                                          message.version));
        return false;
    }
    if (!activated_)
        version_ = message.version;  // answers follow the tester's protocol version
    uozdoip::RoutingActivationResponse response;
    response.tester = request->source;
    response.entity = entity_.vehicle().gateway_address;
    response.code = routing_code(*request);
    trace("routing activation for tester " + uozuds::hex_number(request->source, 4) + ": " +
          uozdoip::routing_code_name(response.code));
    if (!activated_ && response.code == uozdoip::routing::kSuccess && !confirm_routing(response))
        return false;
    if (!send(uozdoip::encode(response, version_)))
        return false;
    if (response.code != uozdoip::routing::kSuccess)
        return false;
    if (!activated_) {  // workers read these once requests flow: set them once
        tester_ = request->source;
        activated_ = true;
    }
    return true;
}

// With --confirm-routing: "confirmation required" (0x11) first, then the
// final answer after the time the switch gives. False when closing meanwhile.
bool Connection::confirm_routing(uozdoip::RoutingActivationResponse response) {
    const uint32_t wait_ms = entity_.settings().misbehave.confirm_routing_ms;
    if (wait_ms == 0)
        return true;
    response.code = uozdoip::routing::kConfirmationRequired;
    trace("routing activation for tester " + uozuds::hex_number(response.tester, 4) +
          ": confirmation required, final answer in " + std::to_string(wait_ms) + " ms");
    return send(uozdoip::encode(response, version_)) && pause(milliseconds(wait_ms));
}

// The answer to a routing activation request: denied for a switch, an
// address or type the entity does not take, central security without a
// checked tester certificate, plain TCP where TLS is required, or a tester
// address in use; else success.
uint8_t Connection::routing_code(const uozdoip::RoutingActivationRequest &request) {
    using namespace uozdoip::routing;
    const EntitySettings &settings = entity_.settings();
    if (settings.misbehave.deny_routing)
        return *settings.misbehave.deny_routing;
    if (request.source < kFirstTesterAddress || request.source > kLastTesterAddress)
        return kDeniedUnknownSource;
    if (!known_activation_type(request.activation_type))
        return kDeniedUnsupportedType;
    if (settings.tls.required && tls_ == nullptr)
        return kDeniedTlsRequired;
    if (request.activation_type == kTypeCentralSecurity && !stream_->peer_authenticated())
        return kDeniedMissingAuthentication;
    if (activated_)
        return request.source == tester_ ? kSuccess : kDeniedSourceMismatch;
    return entity_.claim_tester(request.source, shared_from_this());
}

bool Connection::diagnostic(const uozdoip::Message &message) {
    std::optional<uozdoip::DiagnosticMessage> request = uozdoip::parse_diagnostic_message(message);
    if (!request) {
        send(uozdoip::encode_generic_nack(uozdoip::generic_nack::kInvalidPayloadLength, version_));
        return false;
    }
    uozdoip::DiagnosticAck ack{false, request->target, request->source, uozdoip::diag::kAck, {}};
    auto refuse = [&](uint8_t code) {
        ack.negative = true;
        ack.code = code;
        trace("diagnostic message to " + uozuds::hex_number(request->target, 4) + ": NACK " +
              uozdoip::diag_nack_name(code));
        return send(uozdoip::encode(ack, version_));
    };
    if (!activated_ || request->source != tester_) {
        refuse(uozdoip::diag::kNackInvalidSource);
        return false;
    }
    const Misbehaviour &misbehave = entity_.settings().misbehave;
    auto forced = misbehave.nack.find(request->target);
    if (forced != misbehave.nack.end())
        return refuse(forced->second);
    const bool functional = request->target == entity_.vehicle().functional_address;
    if (!functional && !entity_.has_ecu(request->target))
        return refuse(uozdoip::diag::kNackUnknownTarget);
    if (request->data.size() > kMaxUdsLength)
        return refuse(uozdoip::diag::kNackMessageTooLarge);

    Request work{entity_.next_request_number(), request->data, {}, functional};
    trace((functional ? std::string("functional") : entity_.ecu_name(request->target)) + " (" +
          uozuds::hex_number(request->target, 4) + ") <- " +
          uozuds::hex_spaced(request->data.data(), request->data.size()));
    Bytes ack_bytes = uozdoip::encode(ack, version_);
    if (misbehave.drop_mid.count(work.number) != 0) {
        if (!misbehave.no_ack)
            send(ack_bytes);
        trace("request #" + std::to_string(work.number) + ": dropping the connection");
        return false;
    }
    if (!misbehave.no_ack) {
        if (misbehave.coalesce || misbehave.ack_after_answer)
            work.held_ack = ack_bytes;
        else if (!send(ack_bytes))
            return false;
    }
    if (!functional) {
        enqueue(request->target, std::move(work));
        return true;
    }
    // Every ECU gets the request and answers from its own address; a held ACK
    // goes with the first answer.
    for (const SimulatedEcu &ecu : entity_.vehicle().ecus) {
        enqueue(ecu.logical_address, work);
        work.held_ack.clear();
    }
    return true;
}

void Connection::enqueue(uint16_t target, Request request) {
    {
        std::lock_guard<std::mutex> hold(lock_);
        std::unique_ptr<EcuWorker> &worker = workers_[target];
        if (!worker) {
            worker = std::make_unique<EcuWorker>();
            worker->thread = std::thread([this, target] { work(target); });
        }
        worker->queue.push_back(std::move(request));
    }
    wake_.notify_all();
}

void Connection::work(uint16_t target) {
    for (;;) {
        Request request;
        {
            std::unique_lock<std::mutex> hold(lock_);
            EcuWorker &worker = *workers_[target];
            wake_.wait(hold, [&] { return closing_ || !worker.queue.empty(); });
            if (closing_)
                return;
            request = std::move(worker.queue.front());
            worker.queue.pop_front();
        }
        answer(target, request);
    }
}

bool Connection::pause(milliseconds duration) {
    std::unique_lock<std::mutex> hold(lock_);
    return !wake_.wait_for(hold, duration, [&] { return closing_.load(); });
}

bool Connection::send(const Bytes &bytes) {
    std::lock_guard<std::mutex> hold(write_lock_);
    bool written = true;
    if (entity_.settings().misbehave.split) {
        for (size_t i = 0; written && i < bytes.size() && !closing_; ++i) {
            written = stream_->write_all(&bytes[i], 1);
            std::this_thread::sleep_for(milliseconds(1));
        }
    } else {
        written = stream_->write_all(bytes);
    }
    if (!written)
        close();
    return written;
}

bool Connection::send_uds(uint16_t target, const Bytes &uds, Bytes &prefix) {
    Bytes bytes = std::move(prefix);
    prefix.clear();
    Bytes message = uozdoip::encode(uozdoip::DiagnosticMessage{target, tester_, uds}, version_);
    bytes.insert(bytes.end(), message.begin(), message.end());
    trace(entity_.ecu_name(target) + " (" + uozuds::hex_number(target, 4) + ") -> " +
          uozuds::hex_spaced(uds.data(), uds.size()));
    return send(bytes);
}

bool Connection::send_pending(uint16_t target, uint8_t service, Bytes &prefix) {
    return send_uds(target, negative_response(service, uozuds::nrc::kResponsePending), prefix);
}

// The answer to one request, with whatever delays, response-pending messages
// and closing the switches ask for.
void Connection::answer(uint16_t target, const Request &request) {
    const Misbehaviour &misbehave = entity_.settings().misbehave;
    UdsAnswer result = entity_.serve(target, request.data);
    const uint8_t service = request.data[0];
    Bytes prefix = misbehave.coalesce ? request.held_ack : Bytes{};
    if (request.functional && silent_when_functional(result.response)) {
        trace(entity_.ecu_name(target) + " (" + uozuds::hex_number(target, 4) +
              ") -> no answer to " +
              uozuds::hex_spaced(result.response.data(), result.response.size()));
        if (!prefix.empty())
            send(prefix);
        if (misbehave.ack_after_answer && !misbehave.coalesce && !request.held_ack.empty())
            send(request.held_ack);
        return;
    }

    auto slow = misbehave.slow.find(target);
    uint32_t delay_ms =
        slow != misbehave.slow.end() ? slow->second : misbehave.slow_all.value_or(0);
    if (delay_ms > 0 && !pause(milliseconds(delay_ms)))
        return;
    for (int i = 0; i < misbehave.pending_count; ++i) {
        if ((i > 0 && !pause(milliseconds(misbehave.pending_interval_ms))) ||
            !send_pending(target, service, prefix))
            return;
    }
    if (misbehave.pending_count > 0 && !pause(milliseconds(misbehave.pending_interval_ms)))
        return;
    // A busy ECU says so at once, then again well within P2* until done.
    const uint32_t repeat_ms = entity_.settings().uds.p2_star_ms * 2 / 5;
    for (uint32_t left = result.busy_ms; left > 0;) {
        if (!send_pending(target, service, prefix))
            return;
        uint32_t step = left < repeat_ms ? left : repeat_ms;
        if (!pause(milliseconds(step)))
            return;
        left -= step;
    }
    if (!result.suppressed && misbehave.cut_answer.count(request.number) != 0) {
        cut_answer(target, result.response, prefix, request.number);
        return;
    }
    if (!result.suppressed && misbehave.bad_version.count(request.number) != 0) {
        Bytes message =
            uozdoip::encode(uozdoip::DiagnosticMessage{target, tester_, result.response}, version_);
        message[1] = static_cast<uint8_t>(message[1] ^ 0xFF);  // inverse no longer inverse
        prefix.insert(prefix.end(), message.begin(), message.end());
        trace("request #" + std::to_string(request.number) + ": answer with a bad version pair");
        send(prefix);
        return;
    }
    if (!result.suppressed) {
        if (!send_uds(target, result.response, prefix))
            return;
    } else {
        trace(entity_.ecu_name(target) + " (" + uozuds::hex_number(target, 4) + ") -> no answer");
        if (!prefix.empty() && !send(prefix))
            return;
    }
    if (misbehave.ack_after_answer && !misbehave.coalesce && !request.held_ack.empty() &&
        !send(request.held_ack))
        return;
    if (misbehave.drop_after.count(request.number) != 0) {
        trace("request #" + std::to_string(request.number) + " answered: dropping the connection");
        close();
    }
}

// Half of the answer's message (after a coalesced ACK, whole), then the
// connection closes: the tester sees a message that never completes.
void Connection::cut_answer(uint16_t target, const Bytes &uds, Bytes &prefix, uint64_t number) {
    Bytes message = uozdoip::encode(uozdoip::DiagnosticMessage{target, tester_, uds}, version_);
    prefix.insert(prefix.end(), message.begin(), message.begin() + message.size() / 2);
    trace("request #" + std::to_string(number) + ": answer cut after " +
          std::to_string(message.size() / 2) + " of " + std::to_string(message.size()) +
          " bytes, dropping the connection");
    if (send(prefix))
        close();
}

bool Connection::alive(milliseconds wait) {
    if (closing_ || finished_)
        return false;
    {
        std::lock_guard<std::mutex> hold(lock_);
        alive_answered_ = false;
    }
    if (!send(uozdoip::encode_alive_check_request(version_)))
        return false;
    std::unique_lock<std::mutex> hold(lock_);
    wake_.wait_for(hold, wait, [&] { return alive_answered_ || closing_; });
    return alive_answered_ && !closing_;
}

}  // namespace uozecusim
