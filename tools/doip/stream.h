// The byte stream under DoIP messages (tools/doip, see doip.h), shared by
// the agent's client connections and the simulator's entity connections:
// whole messages written in one piece, and a stream read into whole messages
// with the framing faults answered as ISO 13400-2 asks.
//
// A Stream is plain TCP (plain_stream below) or TLS over TCP (tls.h, port
// 3496); both sides read and write through the same calls whichever it is.
#ifndef UOZ_TOOLS_DOIP_STREAM_H
#define UOZ_TOOLS_DOIP_STREAM_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "doip.h"
#include "scoped_fd.h"

namespace uozdoip {

// One connection's byte stream. A reader thread and a writer thread may use
// it at once; writers must not overlap (callers write whole messages under a
// lock of their own). shutdown() may be called from any thread.
class Stream {
  public:
    virtual ~Stream() = default;
    // The socket, for poll(): readable means read_some() has something or
    // soon will.
    virtual int fd() const = 0;
    // Writes every byte. False when the peer is gone or the stream failed;
    // failure() says why.
    virtual bool write_all(const uint8_t *bytes, size_t length) = 0;
    bool write_all(const std::vector<uint8_t> &bytes) {
        return write_all(bytes.data(), bytes.size());
    }
    // Waits for data and reads what there is: the number of bytes, 0 at the
    // end of the stream, -1 when it failed (failure() says why).
    virtual long read_some(uint8_t *buffer, size_t size) = 0;
    // Bytes taken from the socket but not yet returned by read_some (TLS
    // records): read again before waiting on the socket.
    virtual bool buffered() const { return false; }
    // Ends the stream: a read or write under way returns at once.
    virtual void shutdown() = 0;
    // Why the last read or write failed, for logs.
    virtual std::string failure() const = 0;
    // The peer presented a certificate that was checked (TLS with client
    // authentication); always false on plain TCP.
    virtual bool peer_authenticated() const { return false; }
};

// Plain TCP on a connected, blocking socket; the stream owns it.
std::unique_ptr<Stream> plain_stream(uoztools::ScopedFd fd);

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
// The same from a stream, with whatever it holds buffered besides.
long read_into(Stream &stream, FrameReader &reader);

// What one call of read_messages came to.
enum class StreamRead {
    kOpen,        // read and handled: call again for more
    kEnded,       // the peer closed the stream
    kFailed,      // the read failed (errno set)
    kBadVersion,  // a header had a wrong version pair: NACKed, the stream is done
    kStopped      // on_message asked to stop
};

// Reads once from the stream (so that a caller may wait with poll between
// reads) and hands each whole message to on_message, which returns false
// to stop there. A message above the reader's cap is skipped and answered
// with send_nack(0x02); a wrong version pair with send_nack(0x00), after
// which the caller closes the stream.
StreamRead read_messages(Stream &stream, FrameReader &reader,
                         const std::function<bool(const Message &)> &on_message,
                         const std::function<void(uint8_t generic_nack_code)> &send_nack);

}  // namespace uozdoip

#endif
