// The simulator's vehicle announcements: what a DoIP entity sends when it
// comes up, so that testers on the network learn of it without asking.
#ifndef UOZ_TOOLS_ECUSIM_ANNOUNCER_H
#define UOZ_TOOLS_ECUSIM_ANNOUNCER_H

#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "doip_entity.h"

namespace uozecusim {

// A_DoIP_Announce_Num, A_DoIP_Announce_Interval and the upper bound of the
// random A_DoIP_Announce_Wait before the first.
constexpr int kAnnouncements = 3;
constexpr std::chrono::milliseconds kAnnounceInterval{500};
constexpr std::chrono::milliseconds kAnnounceWaitMax{500};

// Where announcements go when no address is given: the limited broadcast
// for an entity on every IPv4 address (0.0.0.0), the broadcast address of
// the interface that holds the entity's IPv4 address, each on port 13400;
// nothing for loopback, IPv6 or an interface without broadcast.
std::optional<std::string> default_announce_target(const std::string &listen_host);

// Sends the entity's announcements from its UDP socket on a thread of its
// own, to "ADDR:PORT". stop() (or the destructor) ends it at once.
class Announcer {
  public:
    Announcer(DoipEntity &entity, std::string target);
    ~Announcer() { stop(); }
    Announcer(const Announcer &) = delete;
    Announcer &operator=(const Announcer &) = delete;

    // A numeric "ADDR:PORT" (or "ADDR", port 13400).
    static bool valid_target(const std::string &target);
    // Starts the thread; a target that is not valid sends nothing.
    void start();
    void stop();

  private:
    static bool resolve(const std::string &target, sockaddr_storage *address, socklen_t *length);
    void run();
    // Waits for `time` unless stopped first; false once stopped.
    bool pause(std::chrono::milliseconds time);

    DoipEntity &entity_;
    const std::string target_;
    sockaddr_storage address_{};
    socklen_t length_ = 0;
    std::mutex lock_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace uozecusim

#endif
