#include "can_side.h"

#include <mutex>
#include <stdexcept>

#include "hex_text.h"
#include "isotp_socket.h"
#include "raw_frame.h"

namespace uozecusim {

namespace {

using std::chrono::milliseconds;

// How long a receive waits before the thread looks whether to stop.
constexpr milliseconds kStopCheck{200};

}  // namespace

// One CAN ECU of the vehicle on one interface.
class CanEcu {
  public:
    CanEcu(const SimulatedEcu &ecu, const std::string &ifname, DoipEntity &entity,
           const CanServing &serving, const std::atomic<bool> &stopping)
        : ecu_(ecu), ifname_(ifname), entity_(entity), serving_(serving), stopping_(stopping) {}

    // Throws std::runtime_error when a socket cannot be opened.
    void open() {
        physical_ = open_socket(ecu_.can_request_id, no_flow_control());
        functional_ = open_socket(ecu_.can_functional_id, true);
    }
    void serve_physical() { serve(*physical_, false); }
    void serve_functional() { serve(*functional_, true); }
    std::string ids_text() const {
        return ecu_.name + " " + uozuds::hex_number(ecu_.can_request_id, 3) + "/" +
               uozuds::hex_number(ecu_.can_response_id, 3);
    }
    uint32_t functional_id() const { return ecu_.can_functional_id; }

  private:
    bool no_flow_control() const {
        return serving_.no_flow_control.count(ecu_.logical_address) != 0;
    }

    // Bound to receive on rx_id and answer on the response id; a listening
    // socket never sends, not even flow control.
    std::unique_ptr<uozcan::IsotpSocket> open_socket(uint32_t rx_id, bool listen_only) const {
        uozcan::IsotpOptions options;
        options.ifname = ifname_;
        options.tx_id = ecu_.can_response_id;
        options.rx_id = rx_id;
        options.padding = serving_.padding;
        options.block_size = serving_.block_size;
        options.st_min = serving_.st_min;
        options.listen_only = listen_only;
        std::string error;
        std::unique_ptr<uozcan::IsotpSocket> socket = uozcan::IsotpSocket::open(options, &error);
        if (!socket)
            throw std::runtime_error("--can " + ifname_ + ": " + ecu_.name + ": " + error);
        return socket;
    }

    void trace(const std::string &line) {
        if (entity_.settings().trace)
            entity_.log(ifname_ + ": " + line);
    }
    std::string title() const {
        return ecu_.name + " (" + uozuds::hex_number(ecu_.can_request_id, 3) + ")";
    }

    void serve(uozcan::IsotpSocket &socket, bool functional) {
        while (!stopping_) {
            Bytes request;
            std::string error;
            switch (socket.receive(Clock::now() + kStopCheck, &request, &error)) {
                case uozcan::IsotpSocket::Receive::kTimedOut:
                    break;
                case uozcan::IsotpSocket::Receive::kFailed:
                    trace(title() + ": " + error);
                    pause(kStopCheck);  // an interface that is down fails at once, again and again
                    break;
                case uozcan::IsotpSocket::Receive::kMessage:
                    if (request.empty())
                        break;
                    trace((functional ? "functional " + uozuds::hex_number(functional_id(), 3) +
                                            " to " + title()
                                      : title()) +
                          " <- " + uozuds::hex_spaced(request.data(), request.size()));
                    answer(request, functional);
                    break;
            }
        }
    }

    // Sleeps, but no longer than the simulator runs; false when stopping.
    bool pause(milliseconds time) {
        for (Clock::time_point end = Clock::now() + time; !stopping_ && Clock::now() < end;)
            std::this_thread::sleep_for(std::min<Clock::duration>(end - Clock::now(), kStopCheck));
        return !stopping_;
    }

    // The answer to one request, with the delays and response-pending
    // messages the switches and the request ask for.
    void answer(const Bytes &request, bool functional) {
        std::lock_guard<std::mutex> one_answer_at_a_time(answering_);
        const Misbehaviour &misbehave = entity_.settings().misbehave;
        UdsAnswer result = entity_.serve(ecu_.logical_address, request);
        if (functional && silent_when_functional(result.response)) {
            trace(title() + " -> no answer to " +
                  uozuds::hex_spaced(result.response.data(), result.response.size()));
            return;
        }
        auto slow = misbehave.slow.find(ecu_.logical_address);
        uint32_t delay_ms =
            slow != misbehave.slow.end() ? slow->second : misbehave.slow_all.value_or(0);
        if (!pause(milliseconds(delay_ms)))
            return;
        const Bytes pending = negative_response(request[0], uozuds::nrc::kResponsePending);
        for (int i = 0; i < misbehave.pending_count; ++i) {
            if (!send(pending) || !pause(milliseconds(misbehave.pending_interval_ms)))
                return;
        }
        // A busy ECU says so at once, then again well within P2* until done.
        const uint32_t repeat_ms = entity_.settings().uds.p2_star_ms * 2 / 5;
        for (uint32_t left = result.busy_ms; left > 0;) {
            uint32_t step = std::min(left, repeat_ms);
            if (!send(pending) || !pause(milliseconds(step)))
                return;
            left -= step;
        }
        if (result.suppressed)
            trace(title() + " -> no answer");
        else if (serving_.stop_mid_answer.count(ecu_.logical_address) != 0 &&
                 result.response.size() > uozcan::kSingleFrameMax)
            send_first_frame_only(result.response);
        else
            send(result.response);
    }

    // The ECU's answer over ISO-TP; an ECU that sends no flow control has
    // only a listening socket, and answers through one opened for the answer.
    bool send(const Bytes &message) {
        std::string error;
        std::unique_ptr<uozcan::IsotpSocket> for_this_answer;
        uozcan::IsotpSocket *socket = physical_.get();
        if (no_flow_control()) {
            for_this_answer = open_socket(ecu_.can_request_id, false);
            socket = for_this_answer.get();
        }
        const milliseconds kLongestSend{30000};
        if (!socket->send(message, Clock::now() + kLongestSend, &error)) {
            trace(title() + ": " + error);
            return false;
        }
        trace(title() + " -> " + uozuds::hex_spaced(message.data(), message.size()));
        return true;
    }

    // The first frame of a segmented answer and nothing after it.
    void send_first_frame_only(const Bytes &message) {
        Bytes frame(8);
        frame[0] = static_cast<uint8_t>(0x10 | (message.size() >> 8 & 0x0F));
        frame[1] = static_cast<uint8_t>(message.size());
        std::copy(message.begin(), message.begin() + 6, frame.begin() + 2);
        std::string error;
        if (!uozcan::send_raw_frame(ifname_, ecu_.can_response_id, false, frame, &error))
            trace(title() + ": " + error);
        else
            trace(title() + " -> first frame of " + std::to_string(message.size()) +
                  " bytes, then nothing (--stop-mid-answer)");
    }

    const SimulatedEcu &ecu_;
    const std::string &ifname_;
    DoipEntity &entity_;
    const CanServing &serving_;
    const std::atomic<bool> &stopping_;
    std::unique_ptr<uozcan::IsotpSocket> physical_;
    std::unique_ptr<uozcan::IsotpSocket> functional_;
    std::mutex answering_;
};

CanSide::CanSide(std::string ifname, DoipEntity &entity, CanServing serving)
    : ifname_(std::move(ifname)), entity_(entity), serving_(std::move(serving)) {}

CanSide::~CanSide() {
    stopping_ = true;
    for (std::thread &thread : threads_)
        thread.join();
}

void CanSide::start() {
    for (const SimulatedEcu &ecu : entity_.vehicle().ecus) {
        if (!ecu.on_can)
            continue;
        ecus_.push_back(std::make_unique<CanEcu>(ecu, ifname_, entity_, serving_, stopping_));
        ecus_.back()->open();
    }
    if (ecus_.empty())
        throw std::runtime_error("--can " + ifname_ +
                                 ": the vehicle has no CAN ECU (none with a \"phy-resp-id\")");
    for (const auto &ecu : ecus_) {
        threads_.emplace_back(&CanEcu::serve_physical, ecu.get());
        threads_.emplace_back(&CanEcu::serve_functional, ecu.get());
    }
    start_j1939();
}

void CanSide::start_j1939() {
    std::string addresses;
    for (const SimulatedEcu &ecu : entity_.vehicle().ecus) {
        if (ecu.j1939.present)
            addresses +=
                (addresses.empty() ? " " : ", ") + uozuds::hex_number(ecu.j1939.address, 2);
    }
    if (addresses.empty())
        return;
    std::string error;
    j1939_ = J1939Ecus::start(entity_.vehicle(), ifname_, &error);
    // Without J1939 in the kernel the ISO-TP side still serves; the line
    // that tells where the simulator serves says why the rest does not.
    j1939_text_ = j1939_ ? ", J1939 ECUs at" + addresses : "; J1939 ECUs not served: " + error;
}

std::string CanSide::listening_text() const {
    std::string text = "serving CAN ISO-TP on " + ifname_ + ", ECUs (request/response id):";
    std::set<uint32_t> functional;
    for (const auto &ecu : ecus_) {
        text += " " + ecu->ids_text() + (&ecu == &ecus_.back() ? "" : ",");
        functional.insert(ecu->functional_id());
    }
    text += ", functional";
    for (uint32_t id : functional)
        text += " " + uozuds::hex_number(id, 3);
    return text + j1939_text_;
}

}  // namespace uozecusim
