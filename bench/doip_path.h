// The end-to-end path through the agent and DoIP: the ECU simulator and the
// agent in processes of their own, and a bare DoIP round trip to the same
// simulator for the anchor.
#ifndef UOZ_BENCH_DOIP_PATH_H
#define UOZ_BENCH_DOIP_PATH_H

#include <memory>
#include <string>

#include "doip.h"
#include "processes.h"
#include "scoped_fd.h"
#include "stream.h"
#include "tls.h"

namespace uozbench {

// How the agent and the bare round trip reach the simulator.
enum class DoipTransport { kPlain, kTls };

// One DoIP connection with routing activated, sending 19 02 FF to the
// engine (0x7E0) and reading until its answer: the least a DoIP round trip
// to the simulator can cost. Over TLS, the simulator's certificate is
// checked against the test PKI's CA, as the agent does.
class BareDoip {
  public:
    BareDoip(int port, DoipTransport transport);
    bool round_trip();

  private:
    bool read_message(uint16_t type, uozdoip::Message *message);

    std::unique_ptr<uozdoip::Stream> stream_;
    uozdoip::FrameReader reader_;
    std::vector<uint8_t> request_;
};

// uoz-ecusim and uoz-agent (routing every CAN ECU through the simulator) on
// the broker; the agent's identity is the test PKI's "agent". Over TLS the
// simulator serves only its TLS port, with the test PKI's DoIP entity
// certificate, and the agent goes there directly.
class DoipPath {
  public:
    DoipPath(int broker_port, DoipTransport transport);
    // The port a bare round trip of the same transport connects to.
    int simulator_port() const { return port_; }
    // A configuration with the engine at 0x7E0 for the library's handle.
    const std::string &config_path() const { return config_path_; }
    std::string agent_output() const { return agent_->output(); }
    ~DoipPath();

  private:
    uoztest::EcuSimulator simulator_;
    int port_;
    std::unique_ptr<uoztest::ChildProcess> agent_;
    std::string config_path_;
    std::string settings_path_;
};

}  // namespace uozbench

#endif
