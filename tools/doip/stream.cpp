#include "stream.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

namespace uozdoip {

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

StreamRead read_messages(int fd, FrameReader &reader,
                         const std::function<bool(const Message &)> &on_message,
                         const std::function<void(uint8_t generic_nack_code)> &send_nack) {
    long got = read_into(fd, reader);
    if (got <= 0)
        return got == 0 ? StreamRead::kEnded : StreamRead::kFailed;
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

}  // namespace uozdoip
