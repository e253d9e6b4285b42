#include "j1939_ecu.h"

#include <stdio.h>

#include "j1939_socket.h"

namespace uozecusim {

namespace {

// How often a serving thread looks whether it is to stop.
constexpr std::chrono::milliseconds kStopCheck{100};

Bytes star_fields(const std::vector<std::string> &fields) {
    Bytes data;
    for (const std::string &field : fields) {
        data.insert(data.end(), field.begin(), field.end());
        data.push_back('*');
    }
    return data;
}

void serve(std::unique_ptr<uozcan::J1939Socket> socket, J1939Identity ecu,
           const std::atomic<bool> &stopping) {
    while (!stopping) {
        uozcan::J1939Message request;
        std::string error;
        uozcan::J1939Socket::Receive got =
            socket->receive(uozcan::Clock::now() + kStopCheck, &request, &error);
        uint32_t pgn = 0;
        if (got == uozcan::J1939Socket::Receive::kFailed)
            fprintf(stderr, "uoz-ecusim: J1939 ECU 0x%02X: %s\n", ecu.address, error.c_str());
        if (got != uozcan::J1939Socket::Receive::kMessage || request.pgn != uozcan::kPgnRequest ||
            !uozcan::requested_pgn(request.data, &pgn))
            continue;
        const bool to_us = request.destination == ecu.address;
        std::optional<Bytes> answer = j1939_answer(ecu, pgn);
        bool sent = true;
        if (answer)
            sent =
                socket->send(pgn, to_us ? request.source : uozcan::kGlobalAddress, *answer, &error);
        else if (to_us)
            sent = socket->send(uozcan::kPgnAcknowledgement, uozcan::kGlobalAddress,
                                uozcan::pgn_refusal(pgn, request.source), &error);
        if (!sent)
            fprintf(stderr, "uoz-ecusim: J1939 ECU 0x%02X: %s\n", ecu.address, error.c_str());
    }
}

}  // namespace

std::optional<Bytes> j1939_answer(const J1939Identity &ecu, uint32_t pgn) {
    if (pgn == uozcan::kPgnSoftwareIdentification && !ecu.software.empty()) {
        Bytes data = {static_cast<uint8_t>(ecu.software.size())};
        Bytes fields = star_fields(ecu.software);
        data.insert(data.end(), fields.begin(), fields.end());
        return data;
    }
    if (pgn == uozcan::kPgnComponentIdentification && !ecu.component.empty())
        return star_fields(ecu.component);
    return std::nullopt;
}

std::unique_ptr<J1939Ecus> J1939Ecus::start(const VehicleFile &vehicle, const std::string &ifname,
                                            std::string *error) {
    std::vector<std::pair<std::unique_ptr<uozcan::J1939Socket>, J1939Identity>> sockets;
    for (const SimulatedEcu &ecu : vehicle.ecus) {
        if (!ecu.j1939.present)
            continue;
        auto socket = uozcan::J1939Socket::open(ifname, ecu.j1939.address, error);
        if (!socket)
            return nullptr;
        sockets.emplace_back(std::move(socket), ecu.j1939);
    }
    if (sockets.empty()) {
        *error = "the vehicle has no J1939 ECU";
        return nullptr;
    }
    std::unique_ptr<J1939Ecus> ecus(new J1939Ecus());
    for (auto &[socket, identity] : sockets)
        ecus->ecus_.emplace_back(serve, std::move(socket), identity, std::cref(ecus->stopping_));
    return ecus;
}

J1939Ecus::~J1939Ecus() {
    stopping_ = true;
    for (std::thread &ecu : ecus_)
        ecu.join();
}

}  // namespace uozecusim
