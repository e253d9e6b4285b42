// Loads arbitrary text as an ECU configuration file.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "UDSOverZelko/config.h"
#include "fuzz_handle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static char path[] = "/tmp/uoz-fuzz-config-XXXXXX";
    static int fd = mkstemp(path);
    if (fd < 0)
        return 0;
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        return 0;
    uoz_dbg_level = -1;
    UDSOverZelkoHandle *handle = uozfuzz::empty_handle();
    if (load_ecu_config(handle, path) == 0)
        print_ecu_config(handle);
    release_handle(handle);
    return 0;
}
