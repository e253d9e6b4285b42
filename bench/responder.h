// A diagnostic agent that does no work: it answers every query at once with
// one fixed ReadDTCInformation record, so that a benchmark measures the
// library and the bus, not a simulation.
#ifndef UOZ_BENCH_RESPONDER_H
#define UOZ_BENCH_RESPONDER_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>

#include "kt5bus/kt5bus.h"

namespace uozbench {

class MinimalResponder {
  public:
    MinimalResponder(const std::string &identity_dir, const std::string &url);
    ~MinimalResponder();
    MinimalResponder(const MinimalResponder &) = delete;
    MinimalResponder &operator=(const MinimalResponder &) = delete;

    // Waits until the client is connected; false after 10 s.
    bool wait_running();
    unsigned long answered() const { return answered_.load(); }
    // Length of the last query received, to check the anchor's payload size.
    size_t last_query_length() const { return last_query_length_.load(); }

  private:
    static void on_message(kt5bus_client *client, kt5bus_message *message);
    static void on_delivered(kt5bus_client *client, kt5bus_message *message, void *unused, int ok);
    static void on_status(kt5bus_client *client, int status);
    static void on_stopped(kt5bus_client *client);
    static void on_presence(kt5bus_client *, kt5bus_address *, kt5bus_address *) {}

    void answer(const kt5bus_message &query);

    kt5bus_client client_{};
    std::mutex lock_;
    std::condition_variable running_changed_;
    bool running_ = false;
    std::atomic<unsigned long> answered_{0};
    std::atomic<size_t> last_query_length_{0};
};

// Value of the first member `key` of a JSON text whose value is a string, or
// "" when there is none: a view into text. Enough for the library's own
// query texts.
std::string_view find_string_member(std::string_view text, std::string_view key);

}  // namespace uozbench

#endif
