// The simulator's DoIP entity: a gateway on TCP and optionally TLS (routing
// activation, diagnostic messages, alive check) and UDP (vehicle
// identification) with the vehicle's ECUs behind it, and switches that make
// it misbehave on demand.
#ifndef UOZ_TOOLS_DOIP_ENTITY_H
#define UOZ_TOOLS_DOIP_ENTITY_H

#include <stdint.h>
#include <sys/socket.h>

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "doip.h"
#include "scoped_fd.h"
#include "tls.h"
#include "uds_server.h"
#include "vehicle.h"

namespace uozecusim {

// Ways to misbehave, each off by default.
struct Misbehaviour {
    bool coalesce = false;          // the ACK and the answer in one write
    bool split = false;             // every message written byte by byte
    bool no_ack = false;            // no diagnostic message ACK at all
    bool ack_after_answer = false;  // the answer first, its ACK after it
    int pending_count = 0;          // 0x78 (response pending) before every answer
    uint32_t pending_interval_ms = 100;
    std::set<uint64_t> drop_after;     // request numbers after whose answer the connection closes
    std::set<uint64_t> drop_mid;       // request numbers whose connection closes after the ACK
    std::set<uint64_t> cut_answer;     // request numbers whose answer stops halfway, then closes
    std::set<uint64_t> bad_version;    // request numbers answered with a wrong version pair
    std::map<uint16_t, uint8_t> nack;  // target address -> diagnostic NACK code
    std::optional<uint8_t> deny_routing;  // routing activation answered with this code
    uint32_t confirm_routing_ms = 0;      // 0x11 (confirmation required) first, success this later
    std::map<uint16_t, uint32_t> slow;    // target address -> delay before its answers
    std::optional<uint32_t> slow_all;     // delay for every target
    uint32_t alive_check_idle_ms = 0;     // alive check sent to an idle tester after this
};

// The TLS port: the entity's certificate and key; with a CA, testers must
// present a certificate from it.
struct EntityTls {
    bool enabled = false;
    uint16_t port = uozdoip::kTlsPort;
    uozdoip::TlsFiles files;
    bool required = false;  // routing activation on the plain port denied with 0x07
};

struct EntitySettings {
    std::string host = "127.0.0.1";
    uint16_t port = uozdoip::kDefaultPort;
    ServerSettings uds;
    EntityTls tls;
    Misbehaviour misbehave;
    bool trace = false;
    uint32_t initial_inactivity_ms = 2000;    // to wait for routing activation
    uint32_t general_inactivity_ms = 300000;  // idle connection closed after this
    uint32_t alive_check_wait_ms = 500;       // for the tester's alive check response
    uint8_t power_mode = 0x01;                // answer to the power mode request (ready)
};

class Connection;

// Activated connections (testers) the entity serves at once.
constexpr uint8_t kMaxActiveTesters = 16;
// The largest UDS message the entity takes; a larger one is NACKed 0x04.
constexpr size_t kMaxUdsLength = 4095;
// The largest diagnostic message (header, addresses, UDS) it takes, as its
// entity status advertises it.
constexpr uint32_t kMaxDataSize = uozdoip::kHeaderSize + 4 + kMaxUdsLength;

class DoipEntity {
  public:
    DoipEntity(VehicleFile vehicle, EntitySettings settings);
    ~DoipEntity();
    DoipEntity(const DoipEntity &) = delete;
    DoipEntity &operator=(const DoipEntity &) = delete;

    // Binds TCP and UDP on the address, and the TLS port when asked for.
    // Throws std::runtime_error saying why not.
    void bind();
    uint16_t port() const { return port_; }
    uint16_t tls_port() const { return tls_port_; }
    // The UDP socket, for the announcements (datagrams are sent whole, so
    // another thread may send on it).
    int udp_socket() const { return udp_.get(); }
    // The vehicle announcement, also the answer to vehicle identification.
    Bytes announcement(uint8_t version = uozdoip::kDefaultVersion) const;
    std::string listening_text() const;
    // Serves until stop(); then closes every connection and returns.
    void run();
    // Safe from a signal handler.
    void stop();
    // A connection's threads are done: the serving loop joins and drops it.
    void connection_finished();

    // ---- for connections ----
    const VehicleFile &vehicle() const { return vehicle_; }
    const EntitySettings &settings() const { return settings_; }
    const std::shared_ptr<const uozdoip::TlsContext> &tls_context() const { return tls_context_; }
    bool has_ecu(uint16_t address) const { return ecus_.count(address) != 0; }
    // Runs the request on the ECU's server, one request at a time per ECU.
    UdsAnswer serve(uint16_t address, const Bytes &request);
    const std::string &ecu_name(uint16_t address) const;
    uint64_t next_request_number() { return ++requests_; }
    // Registers the tester address for the connection: the routing activation
    // code. An address held by another live connection is refused (0x03), one
    // held by a dead one is taken over; beyond kMaxActiveTesters, 0x01.
    uint8_t claim_tester(uint16_t tester, const std::shared_ptr<Connection> &connection);
    void release_tester(uint16_t tester, const Connection *connection);
    void log(const std::string &line);

  private:
    struct EcuSlot {
        std::mutex lock;
        std::unique_ptr<EcuServer> server;
    };

    uoztools::ScopedFd listen_tcp(sockaddr_storage address, socklen_t length, uint16_t port,
                                  const std::string &where, uint16_t *bound_port);
    void bind_tls(const sockaddr_storage &address, socklen_t length);
    void accept_connection(int listener, bool tls);
    void answer_udp();
    Bytes udp_answer(const uozdoip::Message &message, uint8_t version) const;
    uozdoip::VehicleAnnouncement identity() const;
    void wake(char reason);
    bool take_wake_ups();
    void reap_finished();
    void close_all();

    VehicleFile vehicle_;
    EntitySettings settings_;
    std::map<uint16_t, std::unique_ptr<EcuSlot>> ecus_;
    uoztools::ScopedFd tcp_;
    uoztools::ScopedFd tls_;
    uoztools::ScopedFd udp_;
    uoztools::ScopedFd wake_read_;
    uoztools::ScopedFd wake_write_;
    uint16_t port_ = 0;
    uint16_t tls_port_ = 0;
    std::shared_ptr<const uozdoip::TlsContext> tls_context_;
    std::atomic<uint64_t> requests_{0};
    std::list<std::shared_ptr<Connection>> connections_;
    std::mutex testers_lock_;
    std::map<uint16_t, std::weak_ptr<Connection>> testers_;
    std::mutex log_lock_;
};

}  // namespace uozecusim

#endif
