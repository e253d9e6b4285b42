// The byte stream under DoIP messages (tools/doip, see doip.h), shared by
// the agent's client connections and the simulator's entity connections:
// whole messages written in one piece, and a stream read into whole messages
// with the framing faults answered as ISO 13400-2 asks.
//
// Plain TCP today. DoIP over TLS (port 3496, routing code 0x07 "TLS
// required") comes here as a second kind of stream behind the same two
// calls, so that the agent and the simulator get it together.
#ifndef UOZ_TOOLS_DOIP_STREAM_H
#define UOZ_TOOLS_DOIP_STREAM_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <vector>

#include "doip.h"

namespace uozdoip {

// Writes every byte, retrying on EINTR and short writes; on a socket without
// raising SIGPIPE. Meant for blocking descriptors: on a non-blocking one it
// returns false with EAGAIN when the kernel buffer is full, and an unknown
// part may have been written. Returns false (errno set) when the peer is gone
// or the descriptor fails.
bool write_all(int fd, const uint8_t *bytes, size_t length);
inline bool write_all(int fd, const std::vector<uint8_t> &bytes) {
    return write_all(fd, bytes.data(), bytes.size());
}

// One read() into the reader, retrying on EINTR: the number of bytes fed,
// 0 at end of stream, -1 on error (errno set).
long read_into(int fd, FrameReader &reader);

// What one call of read_messages came to.
enum class StreamRead {
    kOpen,        // read and handled: call again for more
    kEnded,       // the peer closed the stream
    kFailed,      // the read failed (errno set)
    kBadVersion,  // a header had a wrong version pair: NACKed, the stream is done
    kStopped      // on_message asked to stop
};

// Reads once from fd (so that a caller may wait with poll between reads) and
// hands each whole message to on_message, which returns false to stop
// there. A message above the reader's cap is skipped and answered with
// send_nack(0x02); a wrong version pair with send_nack(0x00), after which the
// caller closes the stream.
StreamRead read_messages(int fd, FrameReader &reader,
                         const std::function<bool(const Message &)> &on_message,
                         const std::function<void(uint8_t generic_nack_code)> &send_nack);

}  // namespace uozdoip

#endif
