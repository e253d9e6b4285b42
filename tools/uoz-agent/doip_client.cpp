#include "doip_client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "hex_text.h"
#include "udsoverzelko.h"

namespace uozagent {

namespace {

using namespace uozdoip;

bool is_loopback(const sockaddr *address) {
    if (address->sa_family == AF_INET) {
        uint32_t ip = ntohl(reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr);
        return (ip >> 24) == 127;
    }
    if (address->sa_family == AF_INET6) {
        const in6_addr &ip = reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
        if (IN6_IS_ADDR_LOOPBACK(&ip))
            return true;
        return IN6_IS_ADDR_V4MAPPED(&ip) && ip.s6_addr[12] == 127;
    }
    return false;
}

int remaining_ms(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<long long>(0, left));
}

std::string ms_text(Millis duration) {
    return std::to_string(duration.count()) + " ms";
}

// A connect() that gives up at the deadline; the socket is blocking after it.
int connect_before(const addrinfo *address, Clock::time_point deadline, int *error) {
    uoztools::ScopedFd fd(socket(address->ai_family,
                                 address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                 address->ai_protocol));
    if (!fd.valid()) {
        *error = errno;
        return -1;
    }
    if (connect(fd.get(), address->ai_addr, address->ai_addrlen) != 0) {
        if (errno != EINPROGRESS) {
            *error = errno;
            return -1;
        }
        pollfd waiting = {fd.get(), POLLOUT, 0};
        int ready = poll(&waiting, 1, remaining_ms(deadline));
        socklen_t length = sizeof(*error);
        if (ready <= 0) {
            *error = ready == 0 ? ETIMEDOUT : errno;
            return -1;
        }
        if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, error, &length) != 0 || *error != 0)
            return -1;
    }
    int flags = fcntl(fd.get(), F_GETFL);
    fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK);
    int one = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd.release();
}

}  // namespace

DoipConnection::DoipConnection(DoipOptions options) : options_(std::move(options)) {
    tls_ = options_.policy.tls.use == TlsUse::kAlways;
    const DoipIdle &idle = options_.policy.idle;
    if (idle.keep_alive.count() > 0 || idle.close_after.count() > 0)
        idle_watch_ = std::thread(&DoipConnection::idle_loop, this);
}

DoipConnection::~DoipConnection() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
        close_locked();
    }
    changed_.notify_all();
    if (idle_watch_.joinable())
        idle_watch_.join();
    if (reader_.joinable())
        reader_.join();
}

// Waits for a connection to fall idle, then closes it or sends the
// keep-alive message.
void DoipConnection::idle_loop() {
    const DoipIdle &idle = options_.policy.idle;
    const Millis period = idle.keep_alive.count() > 0 ? idle.keep_alive : idle.close_after;
    std::unique_lock<std::mutex> hold(lock_);
    while (!stopping_) {
        if (!active_) {
            changed_.wait(hold);
            continue;
        }
        const Clock::time_point due = last_traffic_ + period;
        if (Clock::now() < due) {
            changed_.wait_until(hold, due);
            continue;
        }
        hold.unlock();
        on_idle(period);
        hold.lock();
    }
}

void DoipConnection::on_idle(Millis period) {
    const DoipIdle &idle = options_.policy.idle;
    std::lock_guard<std::mutex> no_writer(write_lock_);
    std::vector<uint8_t> keep_alive;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (!active_ || Clock::now() < last_traffic_ + period)
            return;
        if (!awaiting_ack_.empty() || receivers_ > 0) {  // a request under way: not idle
            last_traffic_ = Clock::now();
            return;
        }
        if (idle.keep_alive.count() == 0) {
            UOZ_DBGLOG(UOZ_LOG_INFO, "closing the connection to %s: idle for %s", where().c_str(),
                       ms_text(period).c_str());
            closed_by_agent_ = true;
            close_locked();
            return;
        }
        keep_alive =
            encode(DiagnosticMessage{options_.tester_address, idle.target, idle.message}, version_);
        last_traffic_ = Clock::now();
    }
    UOZ_DBGLOG(UOZ_LOG_DBG, "keeping the connection to %s open: %s to %s", where().c_str(),
               uozuds::hex_spaced(idle.message.data(), idle.message.size()).c_str(),
               uozuds::hex_number(idle.target, 4).c_str());
    stream_->write_all(keep_alive);
}

std::string DoipConnection::where() const {
    uint16_t port = tls_ ? options_.policy.tls.port : options_.port;
    return "gateway " + options_.host + ":" + std::to_string(port);
}

// Ends the stream's use: the reader sees the end of the stream and leaves.
void DoipConnection::close_locked() {
    active_ = false;
    if (stream_)
        stream_->shutdown();
}

void DoipConnection::close(bool for_good) {
    std::lock_guard<std::mutex> hold(lock_);
    closed_for_good_ = closed_for_good_ || for_good;
    close_locked();
}

bool DoipConnection::write(Stream &stream, const std::vector<uint8_t> &bytes) {
    std::lock_guard<std::mutex> hold(write_lock_);
    {
        std::lock_guard<std::mutex> state(lock_);
        last_traffic_ = Clock::now();
    }
    return stream.write_all(bytes);
}

// Writes on the connection of that generation only: after a drop and a new
// connection, a request meant for the old one must not reach the new one
// before its routing activation. kNotCurrent: nothing was written.
DoipConnection::Write DoipConnection::write_current(uint64_t generation,
                                                    const std::vector<uint8_t> &bytes) {
    std::lock_guard<std::mutex> hold(write_lock_);
    {
        std::lock_guard<std::mutex> state(lock_);
        if (generation != generation_ || !active_)
            return Write::kNotCurrent;
        last_traffic_ = Clock::now();
    }
    return stream_->write_all(bytes) ? Write::kWritten : Write::kFailed;
}

bool DoipConnection::open_socket(Clock::time_point deadline, uoztools::ScopedFd *fd,
                                 std::string *error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_family = AF_UNSPEC;
    addrinfo *found = nullptr;
    std::string port = std::to_string(tls_ ? options_.policy.tls.port : options_.port);
    int resolved = getaddrinfo(options_.host.c_str(), port.c_str(), &hints, &found);
    if (resolved != 0) {
        *error = "cannot resolve " + where() + ": " + gai_strerror(resolved);
        return false;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> addresses(found, freeaddrinfo);
    int last_error = 0;
    bool remote_refused = false;
    for (const addrinfo *address = found; address != nullptr; address = address->ai_next) {
        if (!options_.allow_remote && !is_loopback(address->ai_addr)) {
            remote_refused = true;
            continue;
        }
        int connected = connect_before(address, deadline, &last_error);
        if (connected >= 0) {
            fd->reset(connected);
            return true;
        }
    }
    if (remote_refused && last_error == 0) {
        *error = where() +
                 " is not on this machine, and the agent settings do not allow remote "
                 "gateways (\"doip\": {\"allow-remote\": true})";
    } else {
        *error = "cannot connect to " + where() + ": " + strerror(last_error);
    }
    return false;
}

// A connected stream, plain or TLS with the gateway's certificate checked.
std::unique_ptr<Stream> DoipConnection::open_stream(Clock::time_point deadline,
                                                    std::string *error) {
    uoztools::ScopedFd fd;
    if (!open_socket(deadline, &fd, error))
        return nullptr;
    if (!tls_)
        return plain_stream(std::move(fd));
    const DoipTls &tls = options_.policy.tls;
    if (!tls_context_) {
        std::string why;
        tls_context_ = TlsContext::for_tester(tls.files, &why);
        if (!tls_context_) {
            *error = "cannot use TLS with " + where() + ": " + why;
            return nullptr;
        }
    }
    auto stream = std::make_unique<TlsStream>(tls_context_, std::move(fd));
    if (!stream->connect(tls.host.empty() ? options_.host : tls.host, where(), deadline, error))
        return nullptr;
    UOZ_DBGLOG(UOZ_LOG_DBG, "TLS with %s: %s", where().c_str(), stream->description().c_str());
    return stream;
}

DoipConnection::Attempt DoipConnection::activation_refused(const RoutingActivationResponse &answer,
                                                           std::string *error) {
    *error = "routing activation denied by " + where() + ": code " +
             uozuds::hex_number(answer.code, 2) + " (" + routing_code_name(answer.code) + ")";
    return answer.code == routing::kDeniedTlsRequired ? Attempt::kTlsRequired : Attempt::kFailed;
}

// Routing activation on the new connection. "Confirmation required" (0x11)
// is not the answer yet: the final one follows within the processing time.
DoipConnection::Attempt DoipConnection::activate(Clock::time_point deadline, std::string *error) {
    RoutingActivationRequest request;
    request.source = options_.tester_address;
    request.activation_type = options_.policy.activation_type;
    const uint8_t version = locked(version_);
    if (!write(*stream_, encode(request, version))) {
        *error = "the connection to " + where() + " broke before routing activation";
        std::lock_guard<std::mutex> hold(lock_);
        close_locked();
        return Attempt::kFailed;
    }
    std::unique_lock<std::mutex> hold(lock_);
    auto answered = [&] { return activation_ || activation_nack_ || !reader_running_; };
    changed_.wait_until(hold, std::min(deadline, Clock::now() + options_.activation_timeout),
                        answered);
    if (activation_ && activation_->code == routing::kConfirmationRequired) {
        UOZ_DBGLOG(UOZ_LOG_INFO,
                   "routing activation at %s needs a confirmation: waiting up to %s for the "
                   "final answer",
                   where().c_str(), ms_text(options_.processing_time).c_str());
        activation_.reset();
        changed_.wait_until(hold, std::min(deadline, Clock::now() + options_.processing_time),
                            answered);
        if (!activation_ && !activation_nack_ && reader_running_) {
            *error = "routing activation at " + where() +
                     " needed a confirmation (code 0x11), and no final answer came within " +
                     ms_text(options_.processing_time);
            close_locked();
            return Attempt::kFailed;
        }
    }
    Attempt attempt = Attempt::kActive;
    if (activation_nack_) {
        const uint8_t code = *activation_nack_;
        *error = where() + " refused " +
                 (code == generic_nack::kIncorrectPattern
                      ? "protocol version " + uozuds::hex_number(version, 2)
                      : std::string("the routing activation request")) +
                 ": generic NACK " + uozuds::hex_number(code, 2) + " (" + generic_nack_name(code) +
                 ")";
        attempt =
            code == generic_nack::kIncorrectPattern ? Attempt::kVersionRefused : Attempt::kFailed;
    } else if (!activation_) {
        *error = reader_running_
                     ? "no routing activation answer from " + where() + " within " +
                           ms_text(options_.activation_timeout)
                     : "the connection to " + where() + " closed during routing activation" +
                           (drop_reason_.empty() ? "" : " (" + drop_reason_ + ")");
        attempt = Attempt::kFailed;
    } else if (activation_->code != routing::kSuccess) {
        attempt = activation_refused(*activation_, error);
    }
    if (attempt != Attempt::kActive) {
        close_locked();
        return attempt;
    }
    entity_address_ = activation_->entity;
    active_ = true;
    last_traffic_ = Clock::now();
    changed_.notify_all();
    ++activations_;
    UOZ_DBGLOG(UOZ_LOG_INFO, "routing activated at %s%s (entity %s, tester %s, version %s)",
               where().c_str(), tls_ ? " over TLS" : "",
               uozuds::hex_number(entity_address_, 4).c_str(),
               uozuds::hex_number(options_.tester_address, 4).c_str(),
               uozuds::hex_number(version, 2).c_str());
    return Attempt::kActive;
}

// Ends the previous connection and its reader.
void DoipConnection::tear_down() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        close_locked();
    }
    if (reader_.joinable())
        reader_.join();
    std::lock_guard<std::mutex> no_writer(write_lock_);
    std::lock_guard<std::mutex> hold(lock_);
    stream_.reset();
}

DoipConnection::Attempt DoipConnection::connect_and_activate(Clock::time_point deadline,
                                                             std::string *error) {
    std::unique_ptr<Stream> stream =
        open_stream(std::min(deadline, Clock::now() + options_.connect_timeout), error);
    if (!stream)
        return Attempt::kFailed;
    Stream *reading = stream.get();
    uint64_t generation;
    {
        std::lock_guard<std::mutex> no_writer(write_lock_);
        std::lock_guard<std::mutex> hold(lock_);
        stream_ = std::move(stream);
        generation = ++generation_;
        activation_.reset();
        activation_nack_.reset();
        drop_reason_.clear();
        closed_by_agent_ = false;
        reader_running_ = true;
        version_ = learned_version_          ? *learned_version_
                   : options_.policy.version ? options_.policy.version
                   : tls_                    ? kVersion2019
                                             : kVersion2012;
    }
    reader_ = std::thread(&DoipConnection::reader_loop, this, reading, generation);
    return activate(deadline, error);
}

// Whether the gateway has closed its side (it said so before our next
// request went out): then the request goes on a new connection.
bool DoipConnection::peer_has_closed() {
    pollfd check{stream_ ? stream_->fd() : -1, POLLRDHUP, 0};
    return check.fd < 0 ||
           (poll(&check, 1, 0) > 0 && (check.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0);
}

bool DoipConnection::ensure_active(Clock::time_point deadline, std::string *error) {
    std::lock_guard<std::mutex> one_attempt(connect_lock_);
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (closed_for_good_) {
            *error = "the agent is stopping";
            return false;
        }
    }
    if (connected() && !peer_has_closed())
        return true;
    bool other_version_tried = false;
    for (;;) {
        tear_down();
        switch (connect_and_activate(deadline, error)) {
            case Attempt::kActive:
                return true;
            case Attempt::kFailed:
                return false;
            case Attempt::kVersionRefused: {
                if (other_version_tried)
                    return false;
                other_version_tried = true;
                learned_version_ = other_version(locked(version_));
                UOZ_DBGLOG(UOZ_LOG_WARN, "%s; trying protocol version %s", error->c_str(),
                           uozuds::hex_number(*learned_version_, 2).c_str());
                break;
            }
            case Attempt::kTlsRequired:
                if (tls_ || options_.policy.tls.use == TlsUse::kNever) {
                    if (!tls_)
                        *error +=
                            "; the agent settings allow no TLS (\"doip\": {\"tls\": {\"ca\": "
                            "...}})";
                    return false;
                }
                tls_ = true;
                learned_version_.reset();
                other_version_tried = false;
                UOZ_DBGLOG(UOZ_LOG_INFO, "%s; connecting to %s", error->c_str(), where().c_str());
                break;
        }
    }
}

bool DoipConnection::send(uint16_t target, const Bytes &uds, Clock::time_point deadline,
                          std::string *error) {
    for (;;) {
        if (!ensure_active(deadline, error))
            return false;
        uint64_t generation;
        uint8_t version;
        {
            std::lock_guard<std::mutex> hold(lock_);
            Mailbox &mailbox = mailboxes_[target];
            mailbox.answers.clear();
            mailbox.dropped = false;
            mailbox.generic_nack = false;
            mailbox.ack = Mailbox::Ack::kWaiting;
            settle_ack(target);
            awaiting_ack_.push_back(target);
            generation = generation_;
            version = version_;
        }
        Write written = write_current(
            generation, encode(DiagnosticMessage{options_.tester_address, target, uds}, version));
        std::lock_guard<std::mutex> hold(lock_);
        if (written == Write::kWritten) {
            mailboxes_[target].ack_deadline = Clock::now() + options_.ack_timeout;
            return true;
        }
        mailboxes_[target].ack = Mailbox::Ack::kNone;
        settle_ack(target);
        // Closed by the gateway before the request went out: it never ran,
        // so it goes on a new connection.
        if (written == Write::kNotCurrent && Clock::now() < deadline)
            continue;
        close_locked();
        *error = "the connection to " + where() + " broke while sending";
        return false;
    }
}

// The target's request no longer waits for its acknowledge in line.
void DoipConnection::settle_ack(uint16_t target) {
    auto found = std::find(awaiting_ack_.begin(), awaiting_ack_.end(), target);
    if (found != awaiting_ack_.end())
        awaiting_ack_.erase(found);
}

// Waits for the answer, watching the acknowledge on the way: a NACK ends the
// request, and so does a missing acknowledge after its time, but a positive
// acknowledge does not wake the waiter (one wake per answer).
bool DoipConnection::receive(uint16_t target, Clock::time_point until, Bytes *response,
                             std::string *error, bool *timed_out) {
    std::unique_lock<std::mutex> hold(lock_);
    ++receivers_;
    const bool received = receive_locked(hold, target, until, response, error, timed_out);
    --receivers_;
    last_traffic_ = Clock::now();  // idle from here on at the earliest
    return received;
}

bool DoipConnection::receive_locked(std::unique_lock<std::mutex> &hold, uint16_t target,
                                    Clock::time_point until, Bytes *response, std::string *error,
                                    bool *timed_out) {
    Mailbox &mailbox = mailboxes_[target];
    for (;;) {
        bool awaiting_ack = mailbox.ack == Mailbox::Ack::kWaiting;
        Clock::time_point wake = awaiting_ack ? std::min(until, mailbox.ack_deadline) : until;
        mailbox.changed.wait_until(hold, wake, [&] {
            return !mailbox.answers.empty() || mailbox.dropped ||
                   mailbox.ack == Mailbox::Ack::kRefused;
        });
        if (!mailbox.answers.empty()) {
            *response = std::move(mailbox.answers.front());
            mailbox.answers.pop_front();
            if (mailbox.ack == Mailbox::Ack::kWaiting)  // the answer counts as the acknowledge
                mailbox.ack = Mailbox::Ack::kAcknowledged;
            return true;
        }
        if (mailbox.ack == Mailbox::Ack::kRefused) {
            *error = where() + " refused the request to " + uozuds::hex_number(target, 4) + ": " +
                     (mailbox.generic_nack ? "generic NACK " : "NACK ") +
                     uozuds::hex_number(mailbox.nack_code, 2) + " (" +
                     (mailbox.generic_nack ? generic_nack_name(mailbox.nack_code)
                                           : diag_nack_name(mailbox.nack_code)) +
                     ")";
            return false;
        }
        if (mailbox.dropped) {
            *error = "the connection to " + where() + " dropped while waiting for the answer of " +
                     uozuds::hex_number(target, 4) + " (" + drop_reason_ +
                     "); the request is not sent again";
            return false;
        }
        if (mailbox.ack == Mailbox::Ack::kWaiting && Clock::now() >= mailbox.ack_deadline) {
            settle_ack(target);
            *error = "no acknowledge from " + where() + " for " + uozuds::hex_number(target, 4) +
                     " within " + ms_text(options_.ack_timeout);
            return false;
        }
        if (Clock::now() >= until) {
            *timed_out = true;
            return false;
        }
    }
}

void DoipConnection::dropped(uint64_t generation, const std::string &why) {
    std::lock_guard<std::mutex> hold(lock_);
    reader_running_ = false;
    if (generation != generation_)
        return;
    active_ = false;
    drop_reason_ = why;
    awaiting_ack_.clear();
    for (auto &[target, mailbox] : mailboxes_) {
        (void)target;
        mailbox.dropped = true;
        mailbox.changed.notify_all();
    }
    changed_.notify_all();
    UOZ_DBGLOG(UOZ_LOG_INFO, "connection to %s closed: %s", where().c_str(), why.c_str());
}

// A generic NACK answers the oldest message the gateway has not acknowledged
// yet: the routing activation request while activating, else the oldest
// diagnostic message awaiting its acknowledge, which fails at once.
void DoipConnection::generic_nack(uint8_t code) {
    if (!active_) {
        activation_nack_ = code;
        changed_.notify_all();
        return;
    }
    if (awaiting_ack_.empty()) {
        UOZ_DBGLOG(UOZ_LOG_WARN, "%s sent generic NACK %s (%s)", where().c_str(),
                   uozuds::hex_number(code, 2).c_str(), generic_nack_name(code));
        return;
    }
    Mailbox &mailbox = mailboxes_[awaiting_ack_.front()];
    awaiting_ack_.pop_front();
    mailbox.ack = Mailbox::Ack::kRefused;
    mailbox.generic_nack = true;
    mailbox.nack_code = code;
    mailbox.changed.notify_all();
}

void DoipConnection::handle(const Message &message, Stream &stream, uint64_t generation) {
    switch (message.payload_type) {
        case payload::kAliveCheckRequest:
            if (write(stream,
                      encode_alive_check_response(options_.tester_address, locked(version_)))) {
                std::lock_guard<std::mutex> hold(lock_);
                ++alive_checks_answered_;
            }
            return;
        case payload::kRoutingActivationResponse: {
            auto response = parse_routing_activation_response(message);
            std::lock_guard<std::mutex> hold(lock_);
            if (response && generation == generation_)
                activation_ = response;
            changed_.notify_all();
            return;
        }
        case payload::kDiagnosticAck:
        case payload::kDiagnosticNack: {
            auto ack = parse_diagnostic_ack(message);
            std::lock_guard<std::mutex> hold(lock_);
            auto found = ack ? mailboxes_.find(ack->source) : mailboxes_.end();
            if (found == mailboxes_.end() || found->second.ack != Mailbox::Ack::kWaiting)
                return;
            Mailbox &mailbox = found->second;
            settle_ack(ack->source);
            mailbox.ack = ack->negative ? Mailbox::Ack::kRefused : Mailbox::Ack::kAcknowledged;
            mailbox.nack_code = ack->code;
            if (ack->negative)
                mailbox.changed.notify_all();
            return;
        }
        case payload::kDiagnosticMessage: {
            auto diagnostic = parse_diagnostic_message(message);
            std::lock_guard<std::mutex> hold(lock_);
            if (!diagnostic || diagnostic->target != options_.tester_address)
                return;
            Mailbox &mailbox = mailboxes_[diagnostic->source];
            if (mailbox.ack == Mailbox::Ack::kWaiting)
                settle_ack(diagnostic->source);
            mailbox.answers.push_back(std::move(diagnostic->data));
            mailbox.changed.notify_all();
            return;
        }
        case payload::kGenericNack: {
            auto code = parse_generic_nack(message);
            std::lock_guard<std::mutex> hold(lock_);
            if (generation == generation_)
                generic_nack(code.value_or(generic_nack::kInvalidPayloadLength));
            return;
        }
        default:
            UOZ_DBGLOG(UOZ_LOG_DBG, "%s sent %s: ignored", where().c_str(),
                       payload_type_name(message.payload_type));
            return;
    }
}

void DoipConnection::reader_loop(Stream *stream, uint64_t generation) {
    FrameReader reader;
    auto on_message = [&](const Message &message) {
        handle(message, *stream, generation);
        return true;
    };
    auto send_nack = [&](uint8_t code) {
        write(*stream, encode_generic_nack(code, locked(version_)));
    };
    std::string why;
    StreamRead result = StreamRead::kOpen;
    while (result == StreamRead::kOpen)
        result = read_messages(*stream, reader, on_message, send_nack);
    if (result == StreamRead::kEnded)
        why = locked(closed_by_agent_) ? "closed by the agent" : "closed by the gateway";
    if (result == StreamRead::kFailed)
        why = "read failed: " + stream->failure();
    if (result == StreamRead::kBadVersion) {
        why = "the gateway sent a header with a wrong protocol version";
        stream->shutdown();
    }
    dropped(generation, why);
}

}  // namespace uozagent
