#include "j1939_version.h"

#include <stdio.h>

#include "j1939_socket.h"
#include "json_helpers.h"
#include "udsoverzelko.h"

namespace uozagent {

namespace {

std::string pgn_text(uint32_t pgn) {
    char text[16];
    snprintf(text, sizeof(text), "0x%04X", pgn);
    return text;
}

// A number of the description, as JSON number or hex text.
bool number_of(json_object *description, const char *key, uint32_t largest, uint32_t *value,
               std::string *error) {
    json_object *member = nullptr;
    bool read = false;
    if (json_object_object_get_ex(description, key, &member)) {
        if (json_object_is_type(member, json_type_int) && json_object_get_int64(member) >= 0) {
            *value = static_cast<uint32_t>(json_object_get_int64(member));
            read = true;
        } else if (json_object_is_type(member, json_type_string)) {
            read = parse_hex_number(json_object_get_string(member), value);
        }
    }
    if (read && *value <= largest)
        return true;
    *error = std::string("the J1939 description's \"") + key + "\" (" +
             (member != nullptr ? json_object_get_string(member) : "missing") +
             ") is not a valid value";
    return false;
}

bool printable(const std::string &text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c > 0x7E)
            return false;
    }
    return true;
}

// A field without the spaces and NULs that fill it; hex digits when it is
// not text.
std::string field_text(std::string field) {
    while (!field.empty() && (field.back() == ' ' || field.back() == '\0'))
        field.pop_back();
    return printable(field) ? field : hex_text(Bytes(field.begin(), field.end()));
}

// The '*'-terminated fields of data from `from` on (the last one may lack its '*').
std::vector<std::string> star_fields(const Bytes &data, size_t from) {
    std::vector<std::string> fields;
    std::string field;
    for (size_t i = from; i < data.size(); ++i) {
        if (data[i] == '*') {
            fields.push_back(field_text(field));
            field.clear();
        } else {
            field += static_cast<char>(data[i]);
        }
    }
    if (!field.empty())
        fields.push_back(field_text(field));
    return fields;
}

std::string refusal_text(uint8_t control) {
    switch (control) {
        case 0x01:
            return "negative acknowledgement";
        case 0x02:
            return "access denied";
        case 0x03:
            return "cannot respond now";
        default:
            return "acknowledgement control byte " + std::to_string(control);
    }
}

}  // namespace

bool is_j1939_description(json_object *version) {
    return json_object_is_type(version, json_type_object) &&
           (json_object_object_get_ex(version, "j1939", nullptr) ||
            json_object_object_get_ex(version, "pgn", nullptr));
}

std::string j1939_text(uint32_t pgn, const Bytes &data) {
    std::string text;
    if (pgn == uozcan::kPgnSoftwareIdentification && !data.empty()) {
        std::vector<std::string> fields = star_fields(data, 1);
        if (data[0] != 0 && data[0] < fields.size())
            fields.resize(data[0]);
        for (const std::string &field : fields)
            text += (text.empty() ? "" : ", ") + field;
        return text;
    }
    if (pgn == uozcan::kPgnComponentIdentification) {
        static const char *const kNames[] = {"make", "model", "serial number", "unit number"};
        std::vector<std::string> fields = star_fields(data, 0);
        for (size_t i = 0; i < fields.size() && i < 4; ++i) {
            if (!fields[i].empty())
                text += (text.empty() ? "" : ", ") + std::string(kNames[i]) + ": " + fields[i];
        }
        return text;
    }
    return field_text(std::string(data.begin(), data.end()));
}

std::string read_j1939_version(json_object *version, const EcuTarget &target,
                               const AgentSettings &settings, std::string *error) {
    if (target.transport == Transport::kDoip) {
        *error = "a J1939 version read goes over CAN, and this ECU is reached over DoIP";
        return "";
    }
    const std::string title =
        target.name.empty() ? target.label : target.name + " (" + target.label + ")";
    // A CAN ECU's description is the "j1939" object itself; others hold it.
    json_object *held = nullptr;
    json_object *description = json_object_object_get_ex(version, "j1939", &held) ? held : version;
    const char *ifname = uoztools::text_member(description, "ifname");
    if (ifname == nullptr || *ifname == '\0') {
        *error =
            "a J1939 version read needs the ECU's CAN interface name, which only a CAN "
            "ECU's description carries";
        return "";
    }
    uint32_t pgn = 0, ecu = 0;
    if (!number_of(description, "pgn", 0x3FFFF, &pgn, error) ||
        !number_of(description, "source-address", 0xFD, &ecu, error))
        return "";
    std::unique_ptr<uozcan::J1939Socket> socket =
        uozcan::J1939Socket::open(ifname, settings.j1939.address, error);
    const auto source = static_cast<uint8_t>(ecu);
    if (!socket || !socket->accept_only(source, {pgn}, error) ||
        !socket->send(uozcan::kPgnRequest, source, uozcan::pgn_request(pgn), error))
        return "";
    const Clock::time_point until = Clock::now() + settings.j1939.timeout;
    uozcan::J1939Message answer;
    for (;;) {
        uozcan::J1939Socket::Receive got = socket->receive(until, &answer, error);
        if (got == uozcan::J1939Socket::Receive::kTimedOut) {
            *error = "no answer to the request for PGN " + pgn_text(pgn) + " within " +
                     std::to_string(settings.j1939.timeout.count()) + " ms";
        }
        if (got != uozcan::J1939Socket::Receive::kMessage)
            break;
        if (answer.pgn == pgn)
            break;
        uint32_t refused = 0;
        if (answer.pgn == uozcan::kPgnAcknowledgement && answer.data.size() == 8 &&
            uozcan::requested_pgn(Bytes(answer.data.begin() + 5, answer.data.end()), &refused) &&
            refused == pgn && answer.data[0] != 0) {
            *error = "the ECU does not give PGN " + pgn_text(pgn) + " (" +
                     refusal_text(answer.data[0]) + ")";
            break;
        }
    }
    const std::string outcome =
        error->empty() ? pgn_text(pgn) + " " + hex_text(answer.data) : *error;
    if (settings.trace) {
        printf("trace %s: J1939 request %s -> %s\n", title.c_str(), pgn_text(pgn).c_str(),
               outcome.c_str());
        fflush(stdout);
    }
    UOZ_DBGLOG(UOZ_LOG_DBG, "%s: J1939 request %s -> %s", title.c_str(), pgn_text(pgn).c_str(),
               outcome.c_str());
    return error->empty() ? j1939_text(pgn, answer.data) : "";
}

}  // namespace uozagent
