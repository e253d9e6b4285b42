// A stand-in for the bus library: records every call with its arguments,
// refuses operations on request and runs the client's callbacks on a thread
// of their own, so that the bus wrapper can be tested without a broker.
// Tests set and read the state while no other thread uses it.
#ifndef UOZ_TESTS_FAKE_KT5BUS_H
#define UOZ_TESTS_FAKE_KT5BUS_H

#include <deque>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kt5bus/kt5bus.h"

namespace fakebus {

struct State {
    std::vector<std::string> calls;  // in order, e.g. "init_client(tcp://h:1)"
    // Each call is also written to the debug sink given to init_ll, so that
    // the calls show in the log among the wrapper's own lines.
    bool echo_calls = false;
    void (*debug)(const char *text) = nullptr;  // of the last init_ll
    int init_result = 0;                        // of init_client
    int send_result = 0;                        // of send_message
    std::string refused_name;                   // chain_address refuses it
    // What get_identity_data reports: (kind, name).
    std::vector<std::pair<int, std::string>> identity_addresses;
    bool call_stopped = true;  // stop_client calls the stopped callback
    uint32_t next_id = 1;      // of the next accepted message
    // An accepted message is reported delivered on the bus thread (delivery)
    // at once; the send returns once that report ended, or 100 ms after it
    // found the report blocked.
    bool deliver_during_send = false;
    std::thread delivery;
    kt5bus_client *client = nullptr;       // of the last init_client
    std::deque<kt5bus_message *> pending;  // accepted, not handed back; oldest first
};

State &state();
// Forgets every call, result, pending message and client.
void reset();
// "kind:name,kind:name"
std::string destination(const kt5bus_message *message);

// Runs callbacks on a thread of their own, as the library does, and joins it.
template <typename F>
void on_bus_thread(F callbacks) {
    std::thread(callbacks).join();
}

}  // namespace fakebus

#endif
