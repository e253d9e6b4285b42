#include "discovery.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include "hex_text.h"

namespace uozdoip {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Millis kTick{100};
constexpr size_t kLargestDatagram = 4096;

Millis left_until(Clock::time_point deadline) {
    return std::max(Millis(0), std::chrono::duration_cast<Millis>(deadline - Clock::now()));
}

UdpAddress address_of(const sockaddr_storage &address, socklen_t length) {
    char host[NI_MAXHOST] = "?";
    char port[NI_MAXSERV] = "0";
    getnameinfo(reinterpret_cast<const sockaddr *>(&address), length, host, sizeof(host), port,
                sizeof(port), NI_NUMERICHOST | NI_NUMERICSERV);
    return {host, static_cast<uint16_t>(strtoul(port, nullptr, 10))};
}

// The first address of "ADDR[:PORT]"; false with *error.
bool resolve(const std::string &text, sockaddr_storage *address, socklen_t *length,
             std::string *error) {
    std::string host;
    uint16_t port = 0;
    if (!split_host_port(text.c_str(), kDefaultPort, host, port)) {
        *error = "\"" + text + "\" is not ADDR or ADDR:PORT";
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *found = nullptr;
    int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (status != 0) {
        *error = "cannot resolve " + host + ": " + gai_strerror(status);
        return false;
    }
    memcpy(address, found->ai_addr, found->ai_addrlen);
    *length = found->ai_addrlen;
    freeaddrinfo(found);
    return true;
}

// The one DoIP message of a datagram, any version pair accepted (answers to
// a request with version 0xFF may carry it); false for anything else.
bool message_of(const uint8_t *datagram, size_t size, Message *message) {
    FrameReader reader(kLargestDatagram, true);
    reader.feed(datagram, size);
    return reader.next(*message) == FrameReader::Result::kMessage;
}

// Receives one datagram: its size (0 for none) and sender.
size_t receive(int fd, uint8_t *buffer, UdpAddress *from) {
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    ssize_t got = recvfrom(fd, buffer, kLargestDatagram, MSG_DONTWAIT,
                           reinterpret_cast<sockaddr *>(&peer), &length);
    if (got <= 0)
        return 0;
    *from = address_of(peer, length);
    return static_cast<size_t>(got);
}

uint8_t request_version(uint8_t answered_with) {
    return answered_with == kVersion2012 || answered_with == kVersion2019 ? answered_with
                                                                          : kDefaultVersion;
}

std::string refusal(uint8_t code) {
    return "refused with generic NACK " + uozuds::hex_number(code, 2) + " (" +
           generic_nack_name(code) + ")";
}

}  // namespace

std::string UdpAddress::text() const {
    bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

int Discovery::socket_for(int family, std::string *error) {
    uoztools::ScopedFd &fd = family == AF_INET6 ? ipv6_ : ipv4_;
    if (fd.valid())
        return fd.get();
    fd.reset(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int yes = 1;
    if (!fd.valid() ||
        (family == AF_INET && setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &yes, sizeof(yes)))) {
        *error = std::string("cannot open a UDP socket: ") + strerror(errno);
        fd.reset();
        return -1;
    }
    return fd.get();
}

bool Discovery::open(const DiscoveryOptions &options, std::string *error) {
    options_ = options;
    for (const std::string &text : options.send_to) {
        Destination destination;
        destination.text = text;
        if (!resolve(text, &destination.address, &destination.length, error) ||
            socket_for(destination.address.ss_family, error) < 0)
            return false;
        destinations_.push_back(destination);
    }
    if (options.announcement_port == 0)
        return true;
    announcements_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    int yes = 1;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(options.announcement_port);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    // SO_REUSEADDR lets several listeners share the port: each gets every
    // broadcast announcement.
    if (!announcements_.valid() ||
        setsockopt(announcements_.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) != 0 ||
        bind(announcements_.get(), reinterpret_cast<sockaddr *>(&any), sizeof(any)) != 0) {
        warnings_.push_back("cannot hear announcements on UDP port " +
                            std::to_string(options.announcement_port) + " (" + strerror(errno) +
                            "): only answers count");
        announcements_.reset();
    }
    return true;
}

DiscoveredEntity *Discovery::entity_from(const UdpAddress &from) {
    for (DiscoveredEntity &entity : entities_) {
        if (entity.from == from)
            return &entity;
    }
    return nullptr;
}

// An answer or announcement: a new entity, or one more sign of a known one
// (the same sender and logical address).
void Discovery::take_datagram(int fd, bool announcement_socket) {
    uint8_t datagram[kLargestDatagram];
    UdpAddress from;
    size_t size = receive(fd, datagram, &from);
    Message message;
    if (size == 0 || !message_of(datagram, size, &message))
        return;
    std::optional<VehicleAnnouncement> identity = parse_vehicle_announcement(message);
    if (!identity || !answers(options_.request, *identity))
        return;
    auto known = std::find_if(entities_.begin(), entities_.end(), [&](const DiscoveredEntity &e) {
        return e.from == from && e.identity.logical_address == identity->logical_address;
    });
    if (known == entities_.end()) {
        DiscoveredEntity entity;
        entity.from = from;
        entity.version = message.version;
        entities_.push_back(entity);
        known = entities_.end() - 1;
    }
    known->identity = *identity;
    if (announcement_socket)
        ++known->announcements;
    else
        known->answered = true;
}

bool Discovery::collect(const Enough &enough, std::string *error) {
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + options_.wait;
    std::string failures;
    size_t sent = 0;
    for (const Destination &destination : destinations_) {
        int fd = destination.address.ss_family == AF_INET6 ? ipv6_.get() : ipv4_.get();
        std::vector<uint8_t> request = encode(options_.request);
        if (sendto(fd, request.data(), request.size(), 0,
                   reinterpret_cast<const sockaddr *>(&destination.address),
                   destination.length) == static_cast<ssize_t>(request.size())) {
            ++sent;
            continue;
        }
        std::string why = "cannot send the vehicle identification request to " + destination.text +
                          ": " + strerror(errno);
        failures += (failures.empty() ? "" : "; ") + why;
        warnings_.push_back(why);
    }
    if (sent == 0 && !destinations_.empty()) {
        warnings_.clear();
        *error = failures;
        return false;
    }
    for (;;) {
        pollfd waits[3] = {
            {ipv4_.get(), POLLIN, 0}, {ipv6_.get(), POLLIN, 0}, {announcements_.get(), POLLIN, 0}};
        Millis left = left_until(deadline);
        if (left.count() == 0)
            return true;
        int ready = poll(waits, 3, static_cast<int>(std::min(left, kTick).count()));
        for (int i = 0; ready > 0 && i < 3; ++i) {
            if (waits[i].revents != 0)
                take_datagram(waits[i].fd, i == 2);
        }
        Millis elapsed = std::chrono::duration_cast<Millis>(Clock::now() - start);
        if (enough && enough(entities_, elapsed))
            return true;
    }
}

// A status, power mode or NACK from an entity asked by read_entity_info.
void Discovery::take_info(int fd) {
    uint8_t datagram[kLargestDatagram];
    UdpAddress from;
    size_t size = receive(fd, datagram, &from);
    Message message;
    DiscoveredEntity *entity =
        size > 0 && message_of(datagram, size, &message) ? entity_from(from) : nullptr;
    if (entity == nullptr)
        return;
    if (std::optional<EntityStatus> status = parse_entity_status(message)) {
        entity->status = status;
        entity->status_error.clear();
    } else if (std::optional<uint8_t> mode = parse_power_mode(message)) {
        entity->power_mode = mode;
        entity->power_mode_error.clear();
    } else if (std::optional<uint8_t> code = parse_generic_nack(message)) {
        // A NACK does not say which request it refuses: both that are open.
        if (!entity->status)
            entity->status_error = refusal(*code);
        if (!entity->power_mode)
            entity->power_mode_error = refusal(*code);
    }
}

void Discovery::read_entity_info(Millis wait) {
    const std::string no_answer = "no answer within " + std::to_string(wait.count()) + " ms";
    for (DiscoveredEntity &entity : entities_) {
        sockaddr_storage address{};
        socklen_t length = 0;
        std::string error;
        entity.status_error = entity.power_mode_error = no_answer;
        if (!resolve(entity.from.text(), &address, &length, &error)) {
            entity.status_error = entity.power_mode_error = error;
            continue;
        }
        int fd = socket_for(address.ss_family, &error);
        uint8_t version = request_version(entity.version);
        for (const std::vector<uint8_t> &request :
             {encode_entity_status_request(version), encode_power_mode_request(version)}) {
            if (fd >= 0 && sendto(fd, request.data(), request.size(), 0,
                                  reinterpret_cast<sockaddr *>(&address), length) < 0)
                error =
                    std::string("cannot send to ") + entity.from.text() + ": " + strerror(errno);
        }
        if (!error.empty())
            entity.status_error = entity.power_mode_error = error;
    }
    auto open_questions = [this, &no_answer] {
        return std::any_of(entities_.begin(), entities_.end(), [&](const DiscoveredEntity &e) {
            return e.status_error == no_answer || e.power_mode_error == no_answer;
        });
    };
    const Clock::time_point deadline = Clock::now() + wait;
    while (open_questions()) {
        Millis left = left_until(deadline);
        pollfd waits[2] = {{ipv4_.get(), POLLIN, 0}, {ipv6_.get(), POLLIN, 0}};
        if (left.count() == 0 || poll(waits, 2, static_cast<int>(left.count())) <= 0)
            return;
        for (const pollfd &waiting : waits) {
            if (waiting.revents != 0)
                take_info(waiting.fd);
        }
    }
}

std::optional<uint8_t> read_power_mode(const std::string &host, uint16_t port, uint8_t version,
                                       Millis wait, std::string *error) {
    UdpAddress entity{host, port};
    sockaddr_storage address{};
    socklen_t length = 0;
    if (!resolve(entity.text(), &address, &length, error))
        return std::nullopt;
    uoztools::ScopedFd fd(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // Connected: only the entity's own datagrams are received.
    std::vector<uint8_t> request = encode_power_mode_request(request_version(version));
    if (!fd.valid() || connect(fd.get(), reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        send(fd.get(), request.data(), request.size(), 0) < 0) {
        *error = "cannot ask " + entity.text() + " for its power mode: " + strerror(errno);
        return std::nullopt;
    }
    const Clock::time_point deadline = Clock::now() + wait;
    for (;;) {
        pollfd waiting{fd.get(), POLLIN, 0};
        Millis left = left_until(deadline);
        if (left.count() == 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) {
            *error = "no answer to the power mode request from " + entity.text() + " within " +
                     std::to_string(wait.count()) + " ms";
            return std::nullopt;
        }
        uint8_t datagram[kLargestDatagram];
        ssize_t got = recv(fd.get(), datagram, sizeof(datagram), MSG_DONTWAIT);
        if (got < 0 && errno == ECONNREFUSED) {
            *error = "nothing answers on UDP at " + entity.text() + " (port unreachable)";
            return std::nullopt;
        }
        Message message;
        if (got <= 0 || !message_of(datagram, static_cast<size_t>(got), &message))
            continue;
        if (std::optional<uint8_t> mode = parse_power_mode(message))
            return mode;
        if (std::optional<uint8_t> code = parse_generic_nack(message)) {
            *error = "the power mode request to " + entity.text() + " was " + refusal(*code);
            return std::nullopt;
        }
    }
}

}  // namespace uozdoip
