#include "doip_entity.h"

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
#include <stdexcept>

#include "connection.h"
#include "entity_info.h"

namespace uozecusim {

namespace {

// What a byte in the wake pipe asks the serving loop for.
constexpr char kWakeToStop = 's';
constexpr char kWakeToReap = 'r';

std::string endpoint_text(const sockaddr *address) {
    char host[INET6_ADDRSTRLEN] = "?";
    uint16_t port = 0;
    if (address->sa_family == AF_INET6) {
        auto *v6 = reinterpret_cast<const sockaddr_in6 *>(address);
        inet_ntop(AF_INET6, &v6->sin6_addr, host, sizeof(host));
        port = ntohs(v6->sin6_port);
        return "[" + std::string(host) + "]:" + std::to_string(port);
    }
    auto *v4 = reinterpret_cast<const sockaddr_in *>(address);
    inet_ntop(AF_INET, &v4->sin_addr, host, sizeof(host));
    port = ntohs(v4->sin_port);
    return std::string(host) + ":" + std::to_string(port);
}

void set_port(sockaddr_storage &address, uint16_t port) {
    if (address.ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port = htons(port);
    else
        reinterpret_cast<sockaddr_in *>(&address)->sin_port = htons(port);
}

[[noreturn]] void cannot(const std::string &what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

}  // namespace

DoipEntity::DoipEntity(VehicleFile vehicle, EntitySettings settings)
    : vehicle_(std::move(vehicle)), settings_(std::move(settings)) {
    for (const SimulatedEcu &ecu : vehicle_.ecus) {
        auto slot = std::make_unique<EcuSlot>();
        slot->server = std::make_unique<EcuServer>(ecu, settings_.uds);
        ecus_[ecu.logical_address] = std::move(slot);
    }
}

DoipEntity::~DoipEntity() {
    close_all();
}

void DoipEntity::bind() {
    const std::string where =
        "cannot listen on " + settings_.host + ":" + std::to_string(settings_.port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *found = nullptr;
    int status =
        getaddrinfo(settings_.host.c_str(), std::to_string(settings_.port).c_str(), &hints, &found);
    if (status != 0)
        throw std::runtime_error(where + ": " + gai_strerror(status));
    sockaddr_storage address{};
    socklen_t length = found->ai_addrlen;
    memcpy(&address, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);

    // With port 0 the system picks the TCP port; UDP must get the same one,
    // and if another program holds it for UDP, the next pick is tried.
    const int attempts = settings_.port == 0 ? 8 : 1;
    for (int attempt = 1;; ++attempt) {
        tcp_ = listen_tcp(address, length, settings_.port, where, &port_);
        set_port(address, port_);
        udp_.reset(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (udp_.valid() && ::bind(udp_.get(), reinterpret_cast<sockaddr *>(&address), length) == 0)
            break;
        if (attempt == attempts || errno != EADDRINUSE)
            cannot("cannot listen for UDP on " + settings_.host + ":" + std::to_string(port_));
        set_port(address, 0);
    }
    if (settings_.tls.enabled)
        bind_tls(address, length);

    int wake[2];
    if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0)
        cannot("cannot make a pipe");
    wake_read_.reset(wake[0]);
    wake_write_.reset(wake[1]);
}

uoztools::ScopedFd DoipEntity::listen_tcp(sockaddr_storage address, socklen_t length, uint16_t port,
                                          const std::string &where, uint16_t *bound_port) {
    set_port(address, port);
    uoztools::ScopedFd listener(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int yes = 1;
    if (!listener.valid() ||
        setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) != 0 ||
        ::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), length) != 0 ||
        listen(listener.get(), 16) != 0)
        cannot(where);
    sockaddr_storage bound{};
    socklen_t bound_length = sizeof(bound);
    getsockname(listener.get(), reinterpret_cast<sockaddr *>(&bound), &bound_length);
    *bound_port =
        ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port
                                          : reinterpret_cast<sockaddr_in *>(&bound)->sin_port);
    return listener;
}

// The certificate is checked here, so that a wrong file stops the simulator
// at start rather than failing every handshake.
void DoipEntity::bind_tls(const sockaddr_storage &address, socklen_t length) {
    std::string error;
    tls_context_ = uozdoip::TlsContext::for_entity(settings_.tls.files, &error);
    if (!tls_context_)
        throw std::runtime_error(error);
    tls_ = listen_tcp(
        address, length, settings_.tls.port,
        "cannot listen for TLS on " + settings_.host + ":" + std::to_string(settings_.tls.port),
        &tls_port_);
}

std::string DoipEntity::listening_text() const {
    char gateway[8];
    snprintf(gateway, sizeof(gateway), "0x%04X", vehicle_.gateway_address);
    bool v6 = settings_.host.find(':') != std::string::npos;
    std::string text = "listening on " + (v6 ? "[" + settings_.host + "]" : settings_.host) + ":" +
                       std::to_string(port_) + " (TCP and UDP)";
    if (tls_.valid())
        text += ", TLS on port " + std::to_string(tls_port_) +
                (settings_.tls.required ? " (required)" : "");
    text += std::string(", gateway ") + gateway + ", ECUs:";
    for (const SimulatedEcu &ecu : vehicle_.ecus) {
        char address[8];
        snprintf(address, sizeof(address), "0x%04X", ecu.logical_address);
        text += " " + ecu.name + " " + address;
        text += &ecu == &vehicle_.ecus.back() ? "" : ",";
    }
    return text;
}

void DoipEntity::wake(char reason) {
    if (wake_write_.valid())
        (void)!write(wake_write_.get(), &reason, 1);
}

void DoipEntity::stop() {
    wake(kWakeToStop);
}

void DoipEntity::connection_finished() {
    wake(kWakeToReap);
}

// Empties the wake pipe: false when a stop was asked for.
bool DoipEntity::take_wake_ups() {
    char reasons[64];
    bool stop = false;
    ssize_t got = read(wake_read_.get(), reasons, sizeof(reasons));
    while (got > 0) {
        stop = stop || memchr(reasons, kWakeToStop, static_cast<size_t>(got)) != nullptr;
        got = read(wake_read_.get(), reasons, sizeof(reasons));
    }
    return !stop;
}

void DoipEntity::run() {
    for (bool serving = true; serving;) {
        pollfd waits[4] = {{tcp_.get(), POLLIN, 0},
                           {udp_.get(), POLLIN, 0},
                           {wake_read_.get(), POLLIN, 0},
                           {tls_.valid() ? tls_.get() : -1, POLLIN, 0}};
        int ready = poll(waits, 4, -1);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        if (waits[2].revents != 0) {
            serving = take_wake_ups();
            reap_finished();
        }
        if (serving && waits[0].revents != 0)
            accept_connection(tcp_.get(), false);
        if (serving && waits[3].revents != 0)
            accept_connection(tls_.get(), true);
        if (serving && waits[1].revents != 0)
            answer_udp();
    }
    close_all();
}

// The TLS handshake runs on the connection's own thread, so that a slow
// tester does not hold up the others.
void DoipEntity::accept_connection(int listener, bool tls) {
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    uoztools::ScopedFd fd(
        accept4(listener, reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC));
    if (!fd.valid())
        return;
    int yes = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
    std::string name = endpoint_text(reinterpret_cast<sockaddr *>(&peer));
    if (settings_.trace)
        log(name + (tls ? ": connected (TLS)" : ": connected"));
    auto connection = std::make_shared<Connection>(*this, std::move(fd), name, tls);
    connection->start();
    connections_.push_back(std::move(connection));
}

// Vehicle identification, entity status and power mode, each answered to
// the sender; one message per datagram.
void DoipEntity::answer_udp() {
    uint8_t datagram[4096];
    sockaddr_storage peer{};
    socklen_t peer_length = sizeof(peer);
    ssize_t got = recvfrom(udp_.get(), datagram, sizeof(datagram), 0,
                           reinterpret_cast<sockaddr *>(&peer), &peer_length);
    if (got <= 0)
        return;
    uozdoip::FrameReader reader(sizeof(datagram), true);
    reader.feed(datagram, static_cast<size_t>(got));
    uozdoip::Message message;
    uozdoip::FrameReader::Result result = reader.next(message);
    uint8_t version =
        message.version == uozdoip::kVersionAny ? uozdoip::kDefaultVersion : message.version;
    Bytes answer;
    switch (result) {
        case uozdoip::FrameReader::Result::kBadVersion:
            answer = uozdoip::encode_generic_nack(uozdoip::generic_nack::kIncorrectPattern);
            break;
        case uozdoip::FrameReader::Result::kTooLarge:
            answer = uozdoip::encode_generic_nack(uozdoip::generic_nack::kMessageTooLarge);
            break;
        case uozdoip::FrameReader::Result::kNeedMore:
            if (static_cast<size_t>(got) >= uozdoip::kHeaderSize)
                answer = uozdoip::encode_generic_nack(uozdoip::generic_nack::kInvalidPayloadLength);
            break;
        case uozdoip::FrameReader::Result::kMessage:
            answer = udp_answer(message, version);
            break;
    }
    if (settings_.trace) {
        log(endpoint_text(reinterpret_cast<sockaddr *>(&peer)) +
            " (UDP): " + uozdoip::payload_type_name(message.payload_type) +
            (answer.empty() ? ": no answer" : ": answered"));
    }
    if (!answer.empty())
        sendto(udp_.get(), answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&peer),
               peer_length);
}

uozdoip::VehicleAnnouncement DoipEntity::identity() const {
    uozdoip::VehicleAnnouncement identity;
    std::copy(vehicle_.vin.begin(), vehicle_.vin.end(), identity.vin.begin());
    identity.logical_address = vehicle_.gateway_address;
    identity.eid = vehicle_.eid;
    identity.gid = vehicle_.gid;
    identity.further_action = uozdoip::further_action::kNone;
    identity.sync_status = uozdoip::sync_status::kSynchronized;
    return identity;
}

Bytes DoipEntity::announcement(uint8_t version) const {
    return uozdoip::encode(identity(), version);
}

Bytes DoipEntity::udp_answer(const uozdoip::Message &message, uint8_t version) const {
    switch (message.payload_type) {
        case uozdoip::payload::kVehicleIdRequest:
        case uozdoip::payload::kVehicleIdRequestByEid:
        case uozdoip::payload::kVehicleIdRequestByVin: {
            std::optional<uozdoip::VehicleIdRequest> request =
                uozdoip::parse_vehicle_id_request(message);
            if (!request)
                return uozdoip::encode_generic_nack(uozdoip::generic_nack::kInvalidPayloadLength,
                                                    version);
            if (!uozdoip::answers(*request, identity()))
                return {};  // not this vehicle: no answer
            return announcement(version);
        }
        case uozdoip::payload::kEntityStatusRequest: {
            if (!message.payload.empty())
                break;
            // Sockets at most and open now, largest message.
            uozdoip::EntityStatus status{uozdoip::node_type::kGateway, kMaxActiveTesters,
                                         static_cast<uint8_t>(connections_.size()), kMaxDataSize};
            return uozdoip::encode(status, version);
        }
        case uozdoip::payload::kPowerModeRequest: {
            if (!message.payload.empty())
                break;
            return uozdoip::encode_power_mode(settings_.power_mode, version);
        }
        default:
            return uozdoip::encode_generic_nack(uozdoip::generic_nack::kUnknownPayloadType,
                                                version);
    }
    return uozdoip::encode_generic_nack(uozdoip::generic_nack::kInvalidPayloadLength, version);
}

void DoipEntity::reap_finished() {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if ((*it)->finished()) {
            (*it)->join();
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

void DoipEntity::close_all() {
    for (const auto &connection : connections_)
        connection->close();
    for (const auto &connection : connections_)
        connection->join();
    connections_.clear();
}

UdsAnswer DoipEntity::serve(uint16_t address, const Bytes &request) {
    EcuSlot &slot = *ecus_.at(address);
    std::lock_guard<std::mutex> hold(slot.lock);
    return slot.server->handle(request.data(), request.size(), Clock::now());
}

const std::string &DoipEntity::ecu_name(uint16_t address) const {
    return ecus_.at(address)->server->ecu().name;
}

uint8_t DoipEntity::claim_tester(uint16_t tester, const std::shared_ptr<Connection> &connection) {
    std::shared_ptr<Connection> holder;
    {
        std::lock_guard<std::mutex> hold(testers_lock_);
        holder = testers_[tester].lock();
    }
    // The address may still be held by a connection whose tester is gone
    // (it reconnected before we saw the close): ask it, and take over if silent.
    if (holder && holder != connection && !holder->finished()) {
        if (holder->alive(std::chrono::milliseconds(settings_.alive_check_wait_ms)))
            return uozdoip::routing::kDeniedSourceActiveElsewhere;
        holder->close();
    }
    std::lock_guard<std::mutex> hold(testers_lock_);
    size_t active = 0;
    for (const auto &entry : testers_) {
        std::shared_ptr<Connection> other = entry.second.lock();
        active += entry.first != tester && other && !other->finished() ? 1 : 0;
    }
    if (active >= kMaxActiveTesters)
        return uozdoip::routing::kDeniedAllSocketsActive;
    testers_[tester] = connection;
    return uozdoip::routing::kSuccess;
}

void DoipEntity::release_tester(uint16_t tester, const Connection *connection) {
    std::lock_guard<std::mutex> hold(testers_lock_);
    auto found = testers_.find(tester);
    if (found != testers_.end()) {
        std::shared_ptr<Connection> holder = found->second.lock();
        if (!holder || holder.get() == connection)
            testers_.erase(found);
    }
}

void DoipEntity::log(const std::string &line) {
    std::lock_guard<std::mutex> hold(log_lock_);
    fprintf(stdout, "%s\n", line.c_str());
    fflush(stdout);
}

}  // namespace uozecusim
