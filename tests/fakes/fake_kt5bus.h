// A fake bus library for the wrapper's unit tests: it records every call, can
// refuse any operation, and reports from a thread of its own, as the real
// library does.
#ifndef UOZ_TESTS_FAKE_KT5BUS_H
#define UOZ_TESTS_FAKE_KT5BUS_H

#include <functional>
#include <string>
#include <vector>

#include "kt5bus/kt5bus.h"

namespace fakebus {

struct Settings {
    int init_client_result = 0;
    int send_result = 0;
    int chain_result = 0;        // for every chain_address call
    int chain_fail_on_call = 0;  // 1-based call that fails with chain_result; 0: all
    int identity_result = 0;
    bool report_stopped = true;  // call the stopped callback on stop
    int stopped_delay_ms = 0;
    std::vector<kt5bus_address> identity_addresses;  // what get_identity_data names
};

// Resets the recorded calls and the settings.
void reset(const Settings &settings = Settings());
// Names of the calls made so far, in order ("init_ll", "send_message", ...).
std::vector<std::string> calls();
// The client record given to kt5bus_init_client, or nullptr.
kt5bus_client *client();
// Messages accepted by kt5bus_send_message and not yet reported.
std::vector<kt5bus_message *> accepted();
// Runs the function on the fake's own thread and waits for it.
void on_bus_thread(const std::function<void()> &work);
// Reports an accepted message as delivered (ok 1) or not (0), from the bus thread.
void report_delivery(kt5bus_message *message, int ok);

}  // namespace fakebus

#endif
