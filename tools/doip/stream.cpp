#include "stream.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace uozdoip {

namespace {

class PlainStream : public Stream {
  public:
    explicit PlainStream(uoztools::ScopedFd fd) : fd_(std::move(fd)) {}
    int fd() const override { return fd_.get(); }
    bool write_all(const uint8_t *bytes, size_t length) override {
        if (uozdoip::write_all(fd_.get(), bytes, length))
            return true;
        error_ = errno;
        return false;
    }
    long read_some(uint8_t *buffer, size_t size) override {
        for (;;) {
            ssize_t got = read(fd_.get(), buffer, size);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                error_ = errno;
            return static_cast<long>(got);
        }
    }
    void shutdown() override { ::shutdown(fd_.get(), SHUT_RDWR); }
    std::string failure() const override { return strerror(error_); }

  private:
    uoztools::ScopedFd fd_;
    int error_ = 0;
};

StreamRead frame_messages(FrameReader &reader,
                          const std::function<bool(const Message &)> &on_message,
                          const std::function<void(uint8_t generic_nack_code)> &send_nack) {
    Message message;
    for (;;) {
        switch (reader.next(message)) {
            case FrameReader::Result::kMessage:
                if (!on_message(message))
                    return StreamRead::kStopped;
                break;
            case FrameReader::Result::kNeedMore:
                return StreamRead::kOpen;
            case FrameReader::Result::kTooLarge:
                send_nack(generic_nack::kMessageTooLarge);
                break;
            case FrameReader::Result::kBadVersion:
                send_nack(generic_nack::kIncorrectPattern);
                return StreamRead::kBadVersion;
        }
    }
}

}  // namespace

std::unique_ptr<Stream> plain_stream(uoztools::ScopedFd fd) {
    return std::make_unique<PlainStream>(std::move(fd));
}

bool write_all(int fd, const uint8_t *bytes, size_t length) {
    bool socket = true;
    while (length > 0) {
        ssize_t written = socket ? send(fd, bytes, length, MSG_NOSIGNAL) : write(fd, bytes, length);
        if (written < 0 && errno == ENOTSOCK && socket) {
            socket = false;
            continue;
        }
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

long read_into(int fd, FrameReader &reader) {
    uint8_t chunk[4096];
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof(chunk));
        if (got < 0 && errno == EINTR)
            continue;
        if (got > 0)
            reader.feed(chunk, static_cast<size_t>(got));
        return static_cast<long>(got);
    }
}

long read_into(Stream &stream, FrameReader &reader) {
    uint8_t chunk[4096];
    long total = 0;
    do {
        long got = stream.read_some(chunk, sizeof(chunk));
        if (got <= 0)
            return total > 0 ? total : got;
        reader.feed(chunk, static_cast<size_t>(got));
        total += got;
    } while (stream.buffered());
    return total;
}

StreamRead read_messages(Stream &stream, FrameReader &reader,
                         const std::function<bool(const Message &)> &on_message,
                         const std::function<void(uint8_t generic_nack_code)> &send_nack) {
    long got = read_into(stream, reader);
    if (got <= 0)
        return got == 0 ? StreamRead::kEnded : StreamRead::kFailed;
    return frame_messages(reader, on_message, send_nack);
}

}  // namespace uozdoip
