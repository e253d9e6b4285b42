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

namespace uozbench {

// One DoIP connection with routing activated, sending 19 02 FF to the
// engine (0x7E0) and reading until its answer: the least a DoIP round trip
// to the simulator can cost.
class BareDoip {
  public:
    explicit BareDoip(int port);
    bool round_trip();

  private:
    bool read_message(uint16_t type, uozdoip::Message *message);

    uoztools::ScopedFd fd_;
    uozdoip::FrameReader reader_;
    std::vector<uint8_t> request_;
};

// uoz-ecusim and uoz-agent (routing every CAN ECU through the simulator) on
// the broker; the agent's identity is the test PKI's "agent".
class DoipPath {
  public:
    DoipPath(int broker_port);
    int simulator_port() const { return simulator_.port(); }
    // A configuration with the engine at 0x7E0 for the library's handle.
    const std::string &config_path() const { return config_path_; }
    std::string agent_output() const { return agent_->output(); }
    ~DoipPath();

  private:
    uoztest::EcuSimulator simulator_;
    std::unique_ptr<uoztest::ChildProcess> agent_;
    std::string config_path_;
};

}  // namespace uozbench

#endif
