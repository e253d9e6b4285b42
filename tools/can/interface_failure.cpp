#include "interface_failure.h"

#include <errno.h>
#include <string.h>

namespace uozcan {

std::string interface_failure(const std::string &what, const std::string &ifname, int error) {
    switch (error) {
        case ENETDOWN:
            return "CAN interface " + ifname + " is down";
        case ENODEV:
        case ENXIO:
            return "CAN interface " + ifname + " is gone";
        default:
            return what + " on " + ifname + " failed: " + strerror(error);
    }
}

}  // namespace uozcan
