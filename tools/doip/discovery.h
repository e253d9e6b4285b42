// Finding a vehicle's DoIP entities over UDP (tools/doip), for uozctl and
// the agent alike: the vehicle identification request (plain, by EID or by
// VIN) goes to a broadcast or unicast address; the answers and the
// announcements heard within a bounded time are collected, one entry per
// entity; then each entity can be asked for its status and power mode.
#ifndef UOZ_TOOLS_DOIP_DISCOVERY_H
#define UOZ_TOOLS_DOIP_DISCOVERY_H

#include <stdint.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "doip.h"
#include "entity_info.h"
#include "scoped_fd.h"

namespace uozdoip {

using Millis = std::chrono::milliseconds;

// How long a tester waits for the answers to a UDP request (A_DoIP_Ctrl).
constexpr Millis kControlTime{2000};
// The limited broadcast address, where identification requests go by default.
constexpr const char *kBroadcast = "255.255.255.255";

// A datagram's sender: numeric host and UDP port.
struct UdpAddress {
    std::string host;
    uint16_t port = 0;
    // "192.168.0.10:13400", "[fe80::1]:13400"
    std::string text() const;
    bool operator==(const UdpAddress &other) const {
        return host == other.host && port == other.port;
    }
};

struct DiscoveredEntity {
    UdpAddress from;                     // where it answered or announced from
    uint8_t version = kDefaultVersion;   // the protocol version it spoke
    VehicleAnnouncement identity;        // VIN, logical address, EID, GID, ...
    bool answered = false;               // answered the identification request
    int announcements = 0;               // announcements heard from it
    std::optional<EntityStatus> status;  // after read_entity_info()
    std::optional<uint8_t> power_mode;
    std::string status_error;  // why status (or power_mode) is missing
    std::string power_mode_error;
};

struct DiscoveryOptions {
    // Where the identification request goes: "ADDR" or "ADDR:PORT" (port
    // 13400 unless given). Empty: none is sent, only announcements count.
    std::vector<std::string> send_to = {kBroadcast};
    // UDP port on which announcements are heard (IPv4); 0: not listened for.
    uint16_t announcement_port = kDefaultPort;
    // Plain, by EID or by VIN; announcements of other vehicles are left out.
    VehicleIdRequest request;
    Millis wait = kControlTime;
};

// One discovery run. Not thread-safe: one thread drives it.
class Discovery {
  public:
    // Called after every datagram and at least every 100 ms with the
    // entities so far and the time passed; true ends the collection early.
    using Enough = std::function<bool(const std::vector<DiscoveredEntity> &, Millis elapsed)>;

    // Opens the sockets: false with *error for an address that does not
    // resolve or a socket that cannot be opened. An announcement port that
    // another program holds is only a warning: answers still count.
    bool open(const DiscoveryOptions &options, std::string *error);
    // Sends the requests, then collects for the options' wait (or until
    // `enough`). False with *error when no request could be sent at all.
    bool collect(const Enough &enough, std::string *error);
    // Asks every entity found for its status and power mode at once and
    // waits at most `wait` for the answers; what is missing gets its reason.
    void read_entity_info(Millis wait = kControlTime);

    const std::vector<DiscoveredEntity> &entities() const { return entities_; }
    // Problems that did not stop the run (a busy announcement port, one of
    // several addresses unreachable).
    const std::vector<std::string> &warnings() const { return warnings_; }

  private:
    struct Destination {
        std::string text;
        sockaddr_storage address{};
        socklen_t length = 0;
    };

    int socket_for(int family, std::string *error);
    void take_datagram(int fd, bool announcement_socket);
    void take_info(int fd);
    DiscoveredEntity *entity_from(const UdpAddress &from);

    DiscoveryOptions options_;
    std::vector<Destination> destinations_;
    uoztools::ScopedFd ipv4_;
    uoztools::ScopedFd ipv6_;
    uoztools::ScopedFd announcements_;
    std::vector<DiscoveredEntity> entities_;
    std::vector<std::string> warnings_;
};

// One power mode request to the entity at host:port (UDP): the mode, or
// std::nullopt with *error (no answer within `wait`, refused, unusable).
std::optional<uint8_t> read_power_mode(const std::string &host, uint16_t port, uint8_t version,
                                       Millis wait, std::string *error);

}  // namespace uozdoip

#endif
