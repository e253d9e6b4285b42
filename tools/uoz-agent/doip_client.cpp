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
#include "stream.h"
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

DoipConnection::DoipConnection(DoipOptions options) : options_(std::move(options)) {}

DoipConnection::~DoipConnection() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        close_locked();
    }
    if (reader_.joinable())
        reader_.join();
}

std::string DoipConnection::where() const {
    return "gateway " + options_.host + ":" + std::to_string(options_.port);
}

// Ends the socket's use: the reader sees the end of the stream and leaves.
void DoipConnection::close_locked() {
    active_ = false;
    if (fd_.valid())
        shutdown(fd_.get(), SHUT_RDWR);
}

void DoipConnection::close(bool for_good) {
    std::lock_guard<std::mutex> hold(lock_);
    closed_for_good_ = closed_for_good_ || for_good;
    close_locked();
}

bool DoipConnection::write(int fd, const std::vector<uint8_t> &bytes) {
    std::lock_guard<std::mutex> hold(write_lock_);
    return write_all(fd, bytes);
}

// Writes on the connection of that generation only: after a drop and a new
// connection, a request meant for the old one must not reach the new one
// before its routing activation.
bool DoipConnection::write_current(uint64_t generation, const std::vector<uint8_t> &bytes) {
    std::lock_guard<std::mutex> hold(write_lock_);
    {
        std::lock_guard<std::mutex> state(lock_);
        if (generation != generation_ || !active_)
            return false;
    }
    return write_all(fd_.get(), bytes);
}

bool DoipConnection::open_socket(Clock::time_point deadline, std::string *error) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_family = AF_UNSPEC;
    addrinfo *found = nullptr;
    std::string port = std::to_string(options_.port);
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
        int fd = connect_before(address, deadline, &last_error);
        if (fd >= 0) {
            std::lock_guard<std::mutex> hold(lock_);
            fd_.reset(fd);
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

bool DoipConnection::activate(Clock::time_point deadline, std::string *error) {
    RoutingActivationRequest request;
    request.source = options_.tester_address;
    request.activation_type = options_.activation_type;
    if (!write(fd_.get(), encode(request))) {
        *error = "the connection to " + where() + " broke before routing activation";
        return false;
    }
    Clock::time_point until = std::min(deadline, Clock::now() + options_.activation_timeout);
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait_until(hold, until, [&] { return activation_ || !reader_running_; });
    if (!activation_) {
        *error = reader_running_
                     ? "no routing activation answer from " + where() + " within " +
                           std::to_string(options_.activation_timeout.count()) + " ms"
                     : "the connection to " + where() + " closed during routing activation" +
                           (drop_reason_.empty() ? "" : " (" + drop_reason_ + ")");
        close_locked();
        return false;
    }
    uint8_t code = activation_->code;
    if (code != routing::kSuccess) {
        *error = "routing activation denied by " + where() + ": code " +
                 uozuds::hex_number(code, 2) + " (" + routing_code_name(code) + ")";
        if (code == routing::kConfirmationRequired)
            *error = "routing activation at " + where() + " waits for a confirmation (code 0x11)";
        close_locked();
        return false;
    }
    entity_address_ = activation_->entity;
    active_ = true;
    ++activations_;
    UOZ_DBGLOG(UOZ_LOG_INFO, "routing activated at %s (entity %s, tester %s)", where().c_str(),
               uozuds::hex_number(entity_address_, 4).c_str(),
               uozuds::hex_number(options_.tester_address, 4).c_str());
    return true;
}

bool DoipConnection::ensure_active(Clock::time_point deadline, std::string *error) {
    std::lock_guard<std::mutex> one_attempt(connect_lock_);
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (active_)
            return true;
        if (closed_for_good_) {
            *error = "the agent is stopping";
            return false;
        }
        close_locked();
    }
    if (reader_.joinable())
        reader_.join();
    {
        std::lock_guard<std::mutex> no_writer(write_lock_);
        std::lock_guard<std::mutex> hold(lock_);
        fd_.reset();
    }
    Clock::time_point connect_deadline =
        std::min(deadline, Clock::now() + options_.connect_timeout);
    if (!open_socket(connect_deadline, error))
        return false;
    uint64_t generation;
    {
        std::lock_guard<std::mutex> hold(lock_);
        generation = ++generation_;
        activation_.reset();
        drop_reason_.clear();
        reader_running_ = true;
    }
    reader_ = std::thread(&DoipConnection::reader_loop, this, fd_.get(), generation);
    return activate(deadline, error);
}

bool DoipConnection::send(uint16_t target, const Bytes &uds, Clock::time_point deadline,
                          std::string *error) {
    if (!ensure_active(deadline, error))
        return false;
    uint64_t generation;
    {
        std::lock_guard<std::mutex> hold(lock_);
        Mailbox &mailbox = mailboxes_[target];
        mailbox.answers.clear();
        mailbox.dropped = false;
        mailbox.ack = Mailbox::Ack::kWaiting;
        generation = generation_;
    }
    if (!write_current(generation,
                       encode(DiagnosticMessage{options_.tester_address, target, uds}))) {
        std::lock_guard<std::mutex> hold(lock_);
        close_locked();
        *error = "the connection to " + where() + " broke while sending";
        return false;
    }
    std::lock_guard<std::mutex> hold(lock_);
    mailboxes_[target].ack_deadline = Clock::now() + options_.ack_timeout;
    return true;
}

// Waits for the answer, watching the acknowledge on the way: a NACK ends the
// request, and so does a missing acknowledge after its time, but a positive
// acknowledge does not wake the waiter (one wake per answer).
bool DoipConnection::receive(uint16_t target, Clock::time_point until, Bytes *response,
                             std::string *error, bool *timed_out) {
    std::unique_lock<std::mutex> hold(lock_);
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
            *error = where() + " refused the request to " + uozuds::hex_number(target, 4) +
                     ": NACK " + uozuds::hex_number(mailbox.nack_code, 2) + " (" +
                     diag_nack_name(mailbox.nack_code) + ")";
            return false;
        }
        if (mailbox.dropped) {
            *error = "the connection to " + where() + " dropped while waiting for the answer of " +
                     uozuds::hex_number(target, 4) + " (" + drop_reason_ +
                     "); the request is not sent again";
            return false;
        }
        if (mailbox.ack == Mailbox::Ack::kWaiting && Clock::now() >= mailbox.ack_deadline) {
            *error = "no acknowledge from " + where() + " for " + uozuds::hex_number(target, 4) +
                     " within " + std::to_string(options_.ack_timeout.count()) + " ms";
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
    for (auto &[target, mailbox] : mailboxes_) {
        (void)target;
        mailbox.dropped = true;
        mailbox.changed.notify_all();
    }
    changed_.notify_all();
    UOZ_DBGLOG(UOZ_LOG_INFO, "connection to %s closed: %s", where().c_str(), why.c_str());
}

void DoipConnection::handle(const Message &message, int fd, uint64_t generation) {
    switch (message.payload_type) {
        case payload::kAliveCheckRequest:
            if (write(fd, encode_alive_check_response(options_.tester_address))) {
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
            if (!ack || mailboxes_[ack->source].ack != Mailbox::Ack::kWaiting)
                return;
            Mailbox &mailbox = mailboxes_[ack->source];
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
            mailbox.answers.push_back(std::move(diagnostic->data));
            mailbox.changed.notify_all();
            return;
        }
        case payload::kGenericNack: {
            auto code = parse_generic_nack(message);
            UOZ_DBGLOG(UOZ_LOG_WARN, "%s sent generic NACK %s (%s)", where().c_str(),
                       uozuds::hex_number(code.value_or(0xFF), 2).c_str(),
                       generic_nack_name(code.value_or(0xFF)));
            return;
        }
        default:
            UOZ_DBGLOG(UOZ_LOG_DBG, "%s sent %s: ignored", where().c_str(),
                       payload_type_name(message.payload_type));
            return;
    }
}

void DoipConnection::reader_loop(int fd, uint64_t generation) {
    FrameReader reader;
    auto on_message = [&](const Message &message) {
        handle(message, fd, generation);
        return true;
    };
    auto send_nack = [&](uint8_t code) { write(fd, encode_generic_nack(code)); };
    StreamRead result = StreamRead::kOpen;
    while (result == StreamRead::kOpen)
        result = read_messages(fd, reader, on_message, send_nack);
    std::string why = "closed by the gateway";
    if (result == StreamRead::kFailed)
        why = std::string("read failed: ") + strerror(errno);
    if (result == StreamRead::kBadVersion) {
        why = "the gateway sent a header with a wrong protocol version";
        shutdown(fd, SHUT_RDWR);
    }
    dropped(generation, why);
}

}  // namespace uozagent
