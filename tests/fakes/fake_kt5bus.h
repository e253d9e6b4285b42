// A stand-in for the bus library: records every call with its arguments,
// refuses operations on request and plays the library's callbacks from a
// thread of its own, so that the bus wrapper can be tested without a broker.
#ifndef UOZ_TESTS_FAKE_KT5BUS_H
#define UOZ_TESTS_FAKE_KT5BUS_H

#include <string>
#include <utility>
#include <vector>

#include "kt5bus/kt5bus.h"

namespace fakebus {

// Forget every call, result, pending message and client.
void reset();
// Every call so far, in order, e.g. "init_client(tcp://h:1)".
std::vector<std::string> calls();
// Result of the named operation ("init_client", "send_message",
// "chain_address", "get_identity_data", "stop_client").
void set_result(const std::string &operation, int result);
// chain_address refuses this name with KT5BUS_ERR_INVALID.
void refuse_name(const std::string &name);
// Addresses that get_identity_data reports: (kind, name) with the special
// code in decimal for KT5BUS_ADDR_SPECIAL.
void set_identity_addresses(const std::vector<std::pair<int, std::string>> &addresses);
// Whether stop_client calls the stopped callback (default true).
void set_call_stopped(bool call);
// Id given to the next accepted message (then counts up).
void set_next_id(uint32_t id);

// The client record of the last init_client, or nullptr.
kt5bus_client *client();
// Messages accepted and not yet handed back, oldest first.
size_t pending_count();
// Text and length of the i-th accepted message (still pending).
std::string pending_text(size_t index);
size_t pending_length(size_t index);
std::string pending_content_type(size_t index);
std::string pending_destination(size_t index);  // "kind:name,kind:name"

// Callbacks, each run on a fresh thread that is joined before returning.
void deliver_oldest(int ok);
void inject_message(const std::string &text, size_t length, kt5bus_address *source);
void inject_presence(kt5bus_address *connected, kt5bus_address *disconnected);
void inject_status(int status);
void inject_stopped();

}  // namespace fakebus

#endif
