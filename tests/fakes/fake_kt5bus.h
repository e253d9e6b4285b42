// A stand-in for the bus library: records every call with its arguments,
// refuses operations on request and plays the library's callbacks from a
// thread of its own, so that the bus wrapper can be tested without a broker.
// Tests set and read the state directly while no callback runs.
#ifndef UOZ_TESTS_FAKE_KT5BUS_H
#define UOZ_TESTS_FAKE_KT5BUS_H

#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kt5bus/kt5bus.h"

namespace fakebus {

struct State {
    std::mutex lock;                      // guards calls and client across threads
    std::vector<std::string> calls;       // in order, e.g. "init_client(tcp://h:1)"
    std::map<std::string, int> results;   // of "init_client" and "send_message"
    std::set<std::string> refused_names;  // chain_address refuses them
    // What get_identity_data reports: (kind, name), a special code in decimal.
    std::vector<std::pair<int, std::string>> identity_addresses;
    bool call_stopped = true;              // stop_client calls the stopped callback
    uint32_t next_id = 1;                  // of the next accepted message
    kt5bus_client *client = nullptr;       // of the last init_client
    std::deque<kt5bus_message *> pending;  // accepted, not handed back; oldest first
};

State &state();
// Forgets every call, result, pending message and client.
void reset();
// "kind:name,kind:name"
std::string destination(const kt5bus_message *message);

// Runs callbacks of the client on a thread of its own, as the library does,
// and joins it.
template <typename F>
void on_bus_thread(F callbacks) {
    std::thread(callbacks).join();
}
// The client of the last init_client; nullptr once it stopped.
kt5bus_client *client();
// Hands the oldest pending message back to the delivered callback.
void deliver_oldest(int ok);
// The stopped callback, as stop_client calls it when call_stopped is set.
void inject_stopped();

}  // namespace fakebus

#endif
