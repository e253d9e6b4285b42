// Test support: uoz-ecusim started as a process on a free loopback port, and
// a small DoIP tester built on the shared framing library.
#ifndef UOZ_TESTS_ECUSIM_PROCESS_H
#define UOZ_TESTS_ECUSIM_PROCESS_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "doip.h"

namespace uoztest {

using Bytes = std::vector<uint8_t>;

// "19 02 FF" -> bytes; spaces are optional.
Bytes hex_bytes(const std::string &hex);
std::string hex_text(const Bytes &bytes);  // "19 02 FF"

// uoz-ecusim on 127.0.0.1 and a port of the system's choosing, started with
// the given arguments; it is stopped (SIGTERM) and reaped on destruction.
class EcuSim {
  public:
    explicit EcuSim(const std::vector<std::string> &arguments = {});
    ~EcuSim();
    EcuSim(const EcuSim &) = delete;
    EcuSim &operator=(const EcuSim &) = delete;

    bool ready() const { return port_ != 0; }
    uint16_t port() const { return port_; }
    // Sends the signal and waits: the exit code, or -1 when killed by a
    // signal; once stopped, the same code again.
    int stop(int signal_number = 15);
    // Everything the simulator printed on stdout so far (read after stop()).
    std::string output();
    // Everything it printed on stderr: nothing, unless something went wrong
    // (a sanitizer's report, for one).
    std::string errors();

  private:
    pid_t pid_ = -1;
    int exit_code_ = -1;
    uint16_t port_ = 0;
    std::string output_path_;
    std::string errors_path_;
};

// Runs uoz-ecusim to completion (for usage and start-up errors): exit code
// and stderr.
struct RunResult {
    int code = -1;
    std::string errors;
};
RunResult run_ecusim(const std::vector<std::string> &arguments);

// A file in the test's temporary directory, removed on destruction.
class TempFile {
  public:
    explicit TempFile(const std::string &text);
    ~TempFile();
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// A DoIP tester on one TCP connection.
class Tester {
  public:
    explicit Tester(uint16_t port);
    bool connected() const { return fd_.valid(); }
    int fd() const { return fd_.get(); }

    bool send(const Bytes &bytes);
    // The next whole message within timeout_ms; nullopt on timeout or close.
    std::optional<uozdoip::Message> receive(int timeout_ms = 3000);
    // True when the peer closed the connection within timeout_ms (messages
    // still queued before the close are skipped).
    bool closed_by_peer(int timeout_ms = 3000);
    // Routing activation; the response, or nullopt.
    std::optional<uozdoip::RoutingActivationResponse> activate(uint16_t source = 0x0E80,
                                                               uint8_t type = 0x00);
    bool request(uint16_t target, const Bytes &uds, uint16_t source = 0x0E80);
    // The UDS answer of `target` after its ACK, skipping response-pending
    // answers (counted in `pending`); empty on NACK, timeout or close.
    Bytes exchange(uint16_t target, const Bytes &uds, int *pending = nullptr);

    int reads() const { return reads_; }
    // Bytes received but not (yet) a whole message.
    size_t buffered() const { return reader_.buffered(); }
    // What the frame reader says of the bytes received so far.
    uozdoip::FrameReader::Result framing();

  private:
    uozdoip::ScopedFd fd_;
    uozdoip::FrameReader reader_;
    int reads_ = 0;
};

}  // namespace uoztest

#endif
