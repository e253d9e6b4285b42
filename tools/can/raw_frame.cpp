#include "raw_frame.h"

#include <errno.h>
#include <linux/can.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "scoped_fd.h"

namespace uozcan {

bool send_raw_frame(const std::string &ifname, uint32_t id, bool extended,
                    const std::vector<uint8_t> &data, std::string *error) {
    uoztools::ScopedFd fd(socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW));
    sockaddr_can bound{};
    bound.can_family = AF_CAN;
    bound.can_ifindex = static_cast<int>(if_nametoindex(ifname.c_str()));
    can_frame frame{};
    frame.can_id = extended || id > CAN_SFF_MASK ? (id | CAN_EFF_FLAG) : id;
    frame.len = static_cast<uint8_t>(std::min<size_t>(data.size(), CAN_MAX_DLEN));
    std::copy(data.begin(), data.begin() + frame.len, frame.data);
    if (!fd.valid() || bound.can_ifindex == 0 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&bound), sizeof(bound)) != 0 ||
        write(fd.get(), &frame, sizeof(frame)) != static_cast<ssize_t>(sizeof(frame))) {
        *error = "cannot send a CAN frame on " + ifname + ": " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace uozcan
