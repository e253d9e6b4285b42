// Test support: uoz-ecusim as these tests start it, and a small DoIP tester
// built on the shared framing library.
#ifndef UOZ_TESTS_ECUSIM_SUPPORT_H
#define UOZ_TESTS_ECUSIM_SUPPORT_H

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "doip.h"
#include "hex_bytes.h"
#include "processes.h"

namespace uoztest {

using Bytes = std::vector<uint8_t>;

std::string hex_text(const Bytes &bytes);  // "19 02 FF"

// The simulator with the given arguments, its stderr kept apart from its
// output so that a test can check it stayed empty (no sanitizer's report).
class EcuSim : public EcuSimulator {
  public:
    explicit EcuSim(const std::vector<std::string> &arguments = {})
        : EcuSimulator(UOZ_ECUSIM_PATH, arguments, ChildProcess::Stderr::kOwnFile) {}
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
