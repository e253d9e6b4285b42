#include "announcer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <random>

#include "discovery.h"

namespace uozecusim {

std::optional<std::string> default_announce_target(const std::string &listen_host) {
    const std::string port = ":" + std::to_string(uozdoip::kDefaultPort);
    in_addr listening{};
    if (inet_pton(AF_INET, listen_host.c_str(), &listening) != 1)
        return std::nullopt;
    if (listening.s_addr == htonl(INADDR_ANY))
        return uozdoip::kBroadcast + port;
    ifaddrs *interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0)
        return std::nullopt;
    std::optional<std::string> target;
    for (ifaddrs *at = interfaces; at != nullptr && !target; at = at->ifa_next) {
        if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET ||
            (at->ifa_flags & IFF_BROADCAST) == 0 || at->ifa_broadaddr == nullptr ||
            reinterpret_cast<sockaddr_in *>(at->ifa_addr)->sin_addr.s_addr != listening.s_addr)
            continue;
        char broadcast[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(at->ifa_broadaddr)->sin_addr, broadcast,
                  sizeof(broadcast));
        target = broadcast + port;
    }
    freeifaddrs(interfaces);
    return target;
}

Announcer::Announcer(DoipEntity &entity, std::string target)
    : entity_(entity), target_(std::move(target)) {}

bool Announcer::resolve(const std::string &target, sockaddr_storage *address, socklen_t *length) {
    std::string host;
    uint16_t port = 0;
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    if (!uozdoip::split_host_port(target.c_str(), uozdoip::kDefaultPort, host, port) ||
        getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        return false;
    memcpy(address, found->ai_addr, found->ai_addrlen);
    *length = found->ai_addrlen;
    freeaddrinfo(found);
    return true;
}

bool Announcer::valid_target(const std::string &target) {
    sockaddr_storage address{};
    socklen_t length = 0;
    return resolve(target, &address, &length);
}

void Announcer::start() {
    if (!resolve(target_, &address_, &length_))
        return;
    int yes = 1;
    setsockopt(entity_.udp_socket(), SOL_SOCKET, SO_BROADCAST, &yes, sizeof(yes));
    thread_ = std::thread(&Announcer::run, this);
}

void Announcer::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }
    stopped_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

bool Announcer::pause(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> hold(lock_);
    return !stopped_.wait_for(hold, time, [this] { return stopping_; });
}

void Announcer::run() {
    std::random_device seed;
    std::uniform_int_distribution<int> wait(0, static_cast<int>(kAnnounceWaitMax.count()));
    const Bytes message = entity_.announcement();
    bool going = pause(std::chrono::milliseconds(wait(seed)));
    for (int sent = 1; going && sent <= kAnnouncements; ++sent) {
        if (sendto(entity_.udp_socket(), message.data(), message.size(), 0,
                   reinterpret_cast<const sockaddr *>(&address_), length_) < 0) {
            fprintf(stderr, "uoz-ecusim: cannot announce to %s: %s\n", target_.c_str(),
                    strerror(errno));
            return;
        }
        if (entity_.settings().trace)
            entity_.log("announcement " + std::to_string(sent) + " of " +
                        std::to_string(kAnnouncements) + " sent to " + target_);
        going = sent == kAnnouncements || pause(kAnnounceInterval);
    }
}

}  // namespace uozecusim
