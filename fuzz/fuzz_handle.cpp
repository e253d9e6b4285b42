#include "fuzz_handle.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "UDSOverZelko/config.h"

namespace uozfuzz {

namespace {

const char kConfig[] = R"({"configs": [
 {"type": "CAN", "targetAddress": "0x7E0", "name": "engine",
  "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8"}},
 {"type": "IOC", "targetAddress": "0x20", "name": "gateway",
  "ioc": {"bus-id": "1", "func-addr": "0x7DF", "phy-req-id": "0x720", "phy-resp-id": "0x728"}},
 {"type": "DOIP", "targetAddress": "0x1001", "name": "telematics",
  "doip": {"sa": "0x0E80", "ta": "0x1001", "gw-ip": "192.168.0.10"}},
 {"type": "CANFD", "targetAddress": "0x7E5", "name": "adas"}
],
"pre-defined-routines": [
 {"name": "SelfTest", "commands": [{"service": "0x31", "subfn": "0x01", "data": "0x0203"}]},
 {"name": "ResetECU", "commands": [{"service": "0x11", "subfn": "0x01"}]},
 {"name": 7},
 "not a routine"
]})";

char config_path[] = "/tmp/uoz-fuzz-ecus-XXXXXX";

void remove_config() {
    unlink(config_path);
}

}  // namespace

UDSOverZelkoHandle *empty_handle() {
    return new_handle();
}

UDSOverZelkoHandle *offline_handle() {
    uoz_dbg_level = -1;
    int fd = mkstemp(config_path);
    if (fd < 0 || write(fd, kConfig, sizeof(kConfig) - 1) < 0)
        abort();
    close(fd);
    atexit(remove_config);
    UDSOverZelkoHandle *handle = empty_handle();
    if (load_ecu_config(handle, config_path) != 0)
        abort();
    // Kept for the process's life: remote commands read their routines from it.
    handle->config_path = strdup(config_path);
    return handle;
}

void drain_replies(UDSOverZelkoHandle *handle) {
    for (EcuConfig *ecu = handle->ecus; ecu != nullptr; ecu = ecu->next)
        reply_wait_discard(&ecu->reply_wait);
    reply_wait_discard(&handle->broadcast_ecu->reply_wait);
    reply_wait_discard(&handle->consent_wait);
}

}  // namespace uozfuzz
