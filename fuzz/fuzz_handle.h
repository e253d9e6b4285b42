// Handles for the fuzz targets: ECUs from a fixed configuration, no bus.
#ifndef UOZ_FUZZ_FUZZ_HANDLE_H
#define UOZ_FUZZ_FUZZ_HANDLE_H

#include "UDSOverZelko/records.h"

namespace uozfuzz {

// A zero-filled handle with its consent wait, ready for load_ecu_config.
UDSOverZelkoHandle *empty_handle();
// A handle loaded from a configuration with CAN, IOC, DOIP and CANFD ECUs and
// two pre-defined routines ("SelfTest", "ResetECU"); call it once per process.
UDSOverZelkoHandle *offline_handle();
// Frees the replies that the handler stored, as waiting callers would.
void drain_replies(UDSOverZelkoHandle *handle);

}  // namespace uozfuzz

#endif
