// The anchors of the benchmarks: two bare libmosquitto clients over TLS that
// play request and reply through the same broker, topics and QoS as the
// library, with nothing of ours in between. The replier echoes on its
// network thread. The requester's caller either waits on a condition
// variable that the requester's network thread signals, as the library's
// callers must, or runs the requester's network loop itself and so reads the
// reply on its own thread: the floor without any hand-over between threads.
#ifndef UOZ_BENCH_MOSQUITTO_PAIR_H
#define UOZ_BENCH_MOSQUITTO_PAIR_H

#include <mosquitto.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace uozbench {

// The topics of one pair.
struct PairRoute {
    const char *request_topic;
    const char *reply_topic;
    const char *request_subscription;
    const char *reply_subscription;
};

class MosquittoPair {
  public:
    enum class Waiting { kConditionVariable, kCallerRunsLoop };
    // Connects a requester (identity "peer1") and an echoing replier (identity
    // "peer2") to the broker at localhost:port; waits until both subscribed.
    // Pairs that wait differently use topics of their own, so that both can
    // run on one broker. kCallerRunsLoop serves one slot and one thread.
    MosquittoPair(const std::string &pki_dir, int port, size_t payload_size, int slots,
                  Waiting waiting = Waiting::kConditionVariable);
    ~MosquittoPair();
    MosquittoPair(const MosquittoPair &) = delete;
    MosquittoPair &operator=(const MosquittoPair &) = delete;

    // One request and its reply on slot (0 <= slot < slots); returns false
    // when no reply came within 5 s.
    bool round_trip(int slot);

  private:
    struct Slot {
        std::mutex lock;
        std::condition_variable replied;
        unsigned long sent = 0;
        unsigned long received = 0;
    };

    static void on_request(mosquitto *client, void *self, const mosquitto_message *message,
                           const mosquitto_property *properties);
    static void on_reply(mosquitto *client, void *self, const mosquitto_message *message,
                         const mosquitto_property *properties);
    static void on_replier_connect(mosquitto *client, void *self, int rc, int flags,
                                   const mosquitto_property *properties);
    static void on_requester_connect(mosquitto *client, void *self, int rc, int flags,
                                     const mosquitto_property *properties);
    static void on_subscribe(mosquitto *client, void *self, int mid, int count, const int *granted,
                             const mosquitto_property *properties);

    mosquitto *connect_client(const std::string &node);
    bool await_reply(Slot &own, std::unique_lock<std::mutex> &hold, unsigned long expected);

    Waiting waiting_;
    const PairRoute &route_;
    std::string pki_dir_;
    int port_;
    size_t payload_size_;
    std::vector<Slot> slots_;
    mosquitto *requester_ = nullptr;
    mosquitto *replier_ = nullptr;
    std::mutex subscribed_lock_;
    std::condition_variable subscribed_changed_;
    int subscribed_ = 0;
};

}  // namespace uozbench

#endif
