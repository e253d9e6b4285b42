#include "doip.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "entity_info.h"
#include "hex_bytes.h"
#include "scoped_fd.h"
#include "stream.h"

namespace {

using Bytes = std::vector<uint8_t>;
using uozdoip::FrameReader;
using uozdoip::Message;
using uoztest::hex_bytes;

const Bytes kDiagRequest = hex_bytes("02FD8001 00000007 0E0007E0 1902FF");
const Bytes kDiagAck = hex_bytes("02FD8002 00000005 07E00E00 00");
const Bytes kAliveCheck = hex_bytes("03FC0007 00000000");

// Every message the reader gives back for `stream` fed in pieces ending at
// `cuts` (the last piece takes the rest); counts kTooLarge results in too_large.
std::vector<Message> frame(FrameReader &reader, const Bytes &stream, std::vector<size_t> cuts,
                           int *too_large = nullptr) {
    std::vector<Message> messages;
    size_t at = 0;
    cuts.push_back(stream.size());
    for (size_t cut : cuts) {
        reader.feed(stream.data() + at, cut - at);
        at = cut;
        Message message;
        for (;;) {
            FrameReader::Result result = reader.next(message);
            if (result == FrameReader::Result::kMessage)
                messages.push_back(message);
            else if (result == FrameReader::Result::kTooLarge && too_large != nullptr)
                ++*too_large;
            else
                break;
        }
    }
    return messages;
}

TEST(DoipHeader, VersionPairIsValidOnlyForKnownVersionAndItsInverse) {
    const struct {
        uint8_t version, inverse;
        bool any_allowed, valid;
    } cases[] = {{0x02, 0xFD, false, true},  {0x03, 0xFC, false, true},  {0x01, 0xFE, false, false},
                 {0x04, 0xFB, false, false}, {0x02, 0xFC, false, false}, {0x02, 0x02, false, false},
                 {0xFF, 0x00, false, false}, {0xFF, 0x00, true, true},   {0x00, 0xFF, true, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << int(c.version) << "/" << int(c.inverse) << " any " << c.any_allowed);
        EXPECT_EQ(uozdoip::version_pair_valid(c.version, c.inverse, c.any_allowed), c.valid);
        Bytes head = {c.version, c.inverse, 0x00, 0x04, 0, 0, 0, 5};  // an announcement
        EXPECT_EQ(uozdoip::decode_header(head.data(), head.size(), c.any_allowed).has_value(),
                  c.valid);
    }
    // 0xFF belongs to vehicle identification only.
    const Bytes diagnostic = {0xFF, 0x00, 0x80, 0x01, 0, 0, 0, 5};
    EXPECT_FALSE(uozdoip::decode_header(diagnostic.data(), diagnostic.size(), true));
}

// Split once at every offset, and fed byte by byte.
TEST(DoipFrameReader, FramesAStreamHoweverTheReadsSplitIt) {
    const Bytes stream = hex_bytes(
        "02FD8001 00000007 0E0007E0 1902FF 02FD8002 00000005 07E00E00 00"
        "03FC0007 00000000");
    std::vector<std::vector<size_t>> splits(1);
    for (size_t at = 0; at <= stream.size(); ++at) {
        splits[0].push_back(at);
        splits.push_back({at});
    }
    for (const std::vector<size_t> &cuts : splits) {
        SCOPED_TRACE(testing::Message() << cuts.size() << " cut(s) from " << cuts[0]);
        FrameReader reader;
        std::vector<Message> messages = frame(reader, stream, cuts);
        ASSERT_EQ(messages.size(), 3u);
        EXPECT_EQ(uozdoip::encode_message(messages[0]), kDiagRequest);
        EXPECT_EQ(uozdoip::encode_message(messages[1]), kDiagAck);
        EXPECT_EQ(uozdoip::encode_message(messages[2]), kAliveCheck);
        EXPECT_EQ(reader.buffered(), 0u);
    }
}

TEST(DoipFrameReader, ReportsABadVersionPairAndStaysBrokenUntilReset) {
    FrameReader reader;
    Message message;
    Bytes stream = hex_bytes("02FD8002 00000005 07E00E00 00 02FC8001 00000001 3E");
    reader.feed(stream.data(), stream.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
    EXPECT_EQ(reader.next(message), FrameReader::Result::kBadVersion);
    EXPECT_EQ(reader.bad_header().version, 0x02);
    EXPECT_EQ(reader.bad_header().payload_type, 0x8001);
    reader.feed(kDiagAck.data(), kDiagAck.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kBadVersion);
    reader.reset();
    reader.feed(kDiagAck.data(), kDiagAck.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
}

// An oversized message is reported once, its payload skipped wherever the
// reads split it, and the next message framed as usual; a payload exactly at
// the cap is accepted.
TEST(DoipFrameReader, SkipsAnOversizedPayloadSplitAnywhere) {
    Bytes stream = hex_bytes("02FD8001 00000014");
    stream.resize(stream.size() + 20, 0xAA);
    stream.insert(stream.end(), kDiagAck.begin(), kDiagAck.end());
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        SCOPED_TRACE(testing::Message() << "cut at " << cut);
        FrameReader reader(16);
        int too_large = 0;
        std::vector<Message> messages = frame(reader, stream, {cut}, &too_large);
        EXPECT_EQ(too_large, 1);
        EXPECT_EQ(reader.bad_header().payload_length, 20u);
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(uozdoip::encode_message(messages[0]), kDiagAck);
    }
    Bytes at_cap = hex_bytes("02FD8001 00000010");
    at_cap.resize(at_cap.size() + 16, 0x55);
    FrameReader reader(16);
    std::vector<Message> messages = frame(reader, at_cap, {});
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].payload.size(), 16u);
    // A huge declared length is not buffered while its payload is skipped.
    Bytes huge = hex_bytes("02FD8001 FFFFFFFF");
    FrameReader skipping;
    Message message;
    skipping.feed(huge.data(), huge.size());
    EXPECT_EQ(skipping.next(message), FrameReader::Result::kTooLarge);
    Bytes chunk(4096, 0x11);
    skipping.feed(chunk.data(), chunk.size());
    EXPECT_EQ(skipping.next(message), FrameReader::Result::kNeedMore);
    EXPECT_EQ(skipping.buffered(), 0u);
}

// The message parsed by every payload parser that accepts it and encoded
// again from what each gave, so that every field read shows.
std::vector<Bytes> parsed_again(const Message &m) {
    using namespace uozdoip;
    std::vector<Bytes> again;
    auto add = [&](const auto &parsed, auto encode) {
        if (parsed)
            again.push_back(encode(*parsed, m.version));
    };
    auto plain = [](const auto &value, uint8_t version) { return encode(value, version); };
    add(parse_routing_activation_request(m), plain);
    add(parse_routing_activation_response(m), plain);
    add(parse_diagnostic_message(m), plain);
    add(parse_diagnostic_ack(m), plain);
    add(parse_generic_nack(m), encode_generic_nack);
    add(parse_alive_check_response(m), encode_alive_check_response);
    add(parse_vehicle_id_request(m), plain);
    add(parse_vehicle_announcement(m), plain);
    add(parse_entity_status(m), plain);
    add(parse_power_mode(m), encode_power_mode);
    return again;
}

// Exact bytes each way: what encode writes, and what the parser reads back.
TEST(DoipPayloads, EncodeTheExactBytesAndParseThemBack) {
    using namespace uozdoip;
    // Every byte of the length in its place (the messages below are short).
    auto head = encode_header({0x02, 0x8001, 0x01020304});
    EXPECT_EQ(Bytes(head.begin(), head.end()), hex_bytes("02FD8001 01020304"));
    VehicleAnnouncement announcement;
    const std::string vin = "WUOZ0000000000001";
    std::copy(vin.begin(), vin.end(), announcement.vin.begin());
    announcement.logical_address = 0x0E80;
    announcement.eid = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    announcement.gid = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    const std::string vin_hex = "57554F5A30303030303030303030303031";
    VehicleAnnouncement synced;
    synced.logical_address = 0x1000;
    synced.further_action = 0x10;
    synced.sync_status = 0x00;
    const struct {
        const char *name;
        Bytes encoded;
        std::string hex;
    } cases[] = {
        {"routing_request", encode(RoutingActivationRequest{0x0E00, 0x00, 0, std::nullopt}),
         "02FD0005 00000007 0E00 00 00000000"},
        {"routing_request_oem", encode(RoutingActivationRequest{0x0E00, 0xE0, 0, 0x11223344}),
         "02FD0005 0000000B 0E00 E0 00000000 11223344"},
        {"routing_response",
         encode(RoutingActivationResponse{0x0E00, 0x1000, 0x10, 0, std::nullopt}, 0x03),
         "03FC0006 00000009 0E00 1000 10 00000000"},
        {"routing_denied", encode(RoutingActivationResponse{0x0E00, 0x1000, 0x07, 0, std::nullopt}),
         "02FD0006 00000009 0E00 1000 07 00000000"},
        {"diagnostic_message", encode(DiagnosticMessage{0x0E00, 0x07E0, {0x19, 0x02, 0xFF}}),
         "02FD8001 00000007 0E00 07E0 1902FF"},
        {"diagnostic_ack", encode(DiagnosticAck{false, 0x07E0, 0x0E00, 0x00, {}}),
         "02FD8002 00000005 07E0 0E00 00"},
        {"diagnostic_nack", encode(DiagnosticAck{true, 0x0777, 0x0E00, 0x03, {0x22, 0xF1}}),
         "02FD8003 00000007 0777 0E00 03 22F1"},
        {"generic_nack", encode_generic_nack(0x02), "02FD0000 00000001 02"},
        {"alive_check_request", encode_alive_check_request(), "02FD0007 00000000"},
        {"alive_check_response", encode_alive_check_response(0x0E00), "02FD0008 00000002 0E00"},
        {"vehicle_id_request", encode(VehicleIdRequest{}), "FF000001 00000000"},
        {"vehicle_id_by_eid",
         encode(VehicleIdRequest{payload::kVehicleIdRequestByEid, {1, 2, 3, 4, 5, 6}}, 0x02),
         "02FD0002 00000006 010203040506"},
        {"vehicle_id_by_vin",
         encode(VehicleIdRequest{payload::kVehicleIdRequestByVin, Bytes(vin.begin(), vin.end())}),
         "FF000003 00000011" + vin_hex},
        {"vehicle_announcement", encode(announcement),
         "02FD0004 00000020" + vin_hex + "0E80 020000000001 020000000002 00"},
        {"announcement_with_sync_status", encode(synced),
         "02FD0004 00000021" + std::string(34, '0') + "1000" + std::string(24, '0') + "10 00"},
        {"entity_status", encode(EntityStatus{node_type::kNode, 16, 2, 4095}, 0x03),
         "03FC4002 00000007 01 10 02 00000FFF"},
        {"entity_status_without_size", encode(EntityStatus{node_type::kGateway, 4, 0, {}}),
         "02FD4002 00000003 00 04 00"},
        {"power_mode", encode_power_mode(power_mode::kNotReady), "02FD4004 00000001 00"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.encoded, hex_bytes(c.hex));
        FrameReader reader(uozdoip::kDefaultMaxPayload, true);
        std::vector<Message> messages = frame(reader, c.encoded, {});
        ASSERT_EQ(messages.size(), 1u);
        // The alive check request has no payload to parse.
        std::vector<Bytes> expected(c.hex == "02FD0007 00000000" ? 0 : 1, c.encoded);
        EXPECT_EQ(parsed_again(messages[0]), expected);
    }
}

// Each payload parser refuses any other payload type and any wrong length.
TEST(DoipPayloads, ParsersRefuseAWrongTypeOrLength) {
    const char *cases[] = {
        "02FD0005 00000008 0000 00 00000000 00",       // routing request of 8
        "02FD0006 0000000A 0000 0000 10 00000000 00",  // routing response of 10
        "02FD8001 00000004 0000 0000",                 // diagnostic message without data
        "02FD8002 00000004 0000 0000",                 // ack without code
        "02FD0000 00000002 0000",                      // generic NACK of 2
        "02FD0008 00000003 000000",                    // alive check response of 3
        "02FD0002 00000005 0102030405",                // identification by EID of 5
        "02FD4002 00000004 00100000",                  // entity status of 4
        "02FD4004 00000002 0101",                      // power mode of 2
        "02FD1234 00000000",                           // unknown type
    };
    for (const char *hex : cases) {
        SCOPED_TRACE(hex);
        FrameReader reader;
        std::vector<Message> messages = frame(reader, hex_bytes(hex), {});
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_TRUE(parsed_again(messages[0]).empty());
    }
}

TEST(DoipNames, NameEveryCodeAndSayUnknownOtherwise) {
    EXPECT_STREQ(uozdoip::payload_type_name(0x8001), "diagnostic message");
    EXPECT_STREQ(uozdoip::payload_type_name(0x1234), "unknown");
    EXPECT_STREQ(uozdoip::routing_code_name(0x10), "success");
    EXPECT_STREQ(uozdoip::routing_code_name(0x07), "denied: TLS required");
    EXPECT_STREQ(uozdoip::routing_code_name(0x42), "unknown");
    EXPECT_STREQ(uozdoip::diag_nack_name(0x03), "unknown target address");
    EXPECT_STREQ(uozdoip::diag_nack_name(0x06), "target unreachable");
    EXPECT_STREQ(uozdoip::generic_nack_name(0x00), "incorrect pattern format");
    const std::pair<std::string, std::string> names[] = {
        {uozdoip::node_type_name(0x01), "node"},
        {uozdoip::node_type_name(0x02), "reserved (0x02)"},
        {uozdoip::power_mode_name(0x00), "not ready"},
        {uozdoip::power_mode_name(0x02), "not supported"},
        {uozdoip::power_mode_name(0x03), "reserved (0x03)"},
        {uozdoip::further_action_name(0x10), "routing activation for central security"},
        {uozdoip::further_action_name(0x0F), "reserved (0x0F)"},
        {uozdoip::further_action_name(0x11), "maker-specific (0x11)"},
        {uozdoip::sync_status_name(0x10), "not synchronized"},
        {uozdoip::vin_text({}), std::string(34, '0')},
        {uozdoip::id_text({0x02, 0, 0, 0, 0x10, 0xAB}), "0200000010AB"},
    };
    for (const auto &[named, expected] : names)
        EXPECT_EQ(named, expected);
}

// VIN and EID texts as options and settings give them.
TEST(DoipNames, ParseVinAndEidTexts) {
    const struct {
        std::string text;
        bool vin, eid;
    } cases[] = {{"WZL00000000000001", true, false},  {"WZL0000000000001", false, false},
                 {"WZL 0000000000001", false, false}, {"020000001000", false, true},
                 {"02:00:00:00:10:00", false, true},  {"02:00:00:00:10:0", false, false},
                 {"0200:00001000", false, false},     {":020000001000", false, false},
                 {"02000000100G", false, false}};
    for (const auto &c : cases) {
        std::vector<uint8_t> bytes;
        EXPECT_EQ(uozdoip::parse_vin(c.text, &bytes), c.vin) << c.text;
        EXPECT_EQ(uozdoip::parse_eid(c.text, &bytes), c.eid) << c.text;
    }
    std::vector<uint8_t> eid;
    ASSERT_TRUE(uozdoip::parse_eid("02:00:00:00:10:aB", &eid));
    EXPECT_EQ(eid, hex_bytes("0200000010AB"));
}

// One read of the stream: every whole message is handed over; an oversized
// one is skipped with NACK 0x02 and framing goes on; a wrong version pair gets
// NACK 0x00 and ends the stream; a handler can stop, and a closed peer ends it.
TEST(DoipStream, ReadsWholeMessagesAndAnswersFramingFaults) {
    using uozdoip::StreamRead;
    Bytes oversized = hex_bytes("02FD8001 00000011");
    oversized.resize(oversized.size() + 17, 0xAA);
    const Bytes bad_version = hex_bytes("02FC8001 00000001 3E");
    const struct {
        std::vector<Bytes> stream;
        bool stop_at_first;
        std::vector<uint16_t> handed;
        std::vector<uint8_t> nacks;
        StreamRead result;
    } cases[] = {
        {{kDiagRequest, kDiagAck, kAliveCheck},
         false,
         {0x8001, 0x8002, 0x0007},
         {},
         StreamRead::kOpen},
        {{oversized, kDiagAck}, false, {0x8002}, {0x02}, StreamRead::kOpen},
        {{kDiagAck, bad_version, kDiagAck}, false, {0x8002}, {0x00}, StreamRead::kBadVersion},
        {{kDiagRequest, kDiagAck}, true, {0x8001}, {}, StreamRead::kStopped},
        {{}, false, {}, {}, StreamRead::kEnded},
    };
    for (const auto &c : cases) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        uoztools::ScopedFd writing(pair[0]);
        std::unique_ptr<uozdoip::Stream> reading =
            uozdoip::plain_stream(uoztools::ScopedFd(pair[1]));
        for (const Bytes &message : c.stream)
            ASSERT_TRUE(uozdoip::write_all(writing.get(), message));
        if (c.stream.empty())
            writing.reset();
        std::vector<uint16_t> handed;
        std::vector<uint8_t> nacks;
        FrameReader reader(16);
        StreamRead result = uozdoip::read_messages(
            *reading, reader,
            [&](const Message &message) {
                handed.push_back(message.payload_type);
                return !c.stop_at_first;
            },
            [&](uint8_t code) { nacks.push_back(code); });
        EXPECT_EQ(result, c.result) << handed.size();
        EXPECT_EQ(handed, c.handed);
        EXPECT_EQ(nacks, c.nacks);
    }
    // A peer that is gone: a failure with EPIPE, not SIGPIPE.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[0]);
    uoztools::ScopedFd orphan(pair[1]);
    EXPECT_FALSE(uozdoip::write_all(orphan.get(), kDiagAck));
    EXPECT_EQ(errno, EPIPE);
}

TEST(DoipHostPort, SplitsWithTheDefaultPortAndRefusesTheRest) {
    const struct {
        const char *text, *host;
        uint16_t port;
    } accepted[] = {{"127.0.0.1:13401", "127.0.0.1", 13401},
                    {"127.0.0.1", "127.0.0.1", 13400},
                    {"localhost:0", "localhost", 0},
                    {"[::1]:13400", "::1", 13400},
                    {"[::1]", "::1", 13400},
                    {"::1", "::1", 13400}};
    std::string host;
    uint16_t port = 0;
    for (const auto &c : accepted) {
        ASSERT_TRUE(uozdoip::split_host_port(c.text, 13400, host, port)) << c.text;
        EXPECT_EQ(host, c.host);
        EXPECT_EQ(port, c.port);
    }
    for (const char *text :
         {"127.0.0.1:", ":13400", "127.0.0.1:65536", "127.0.0.1:12a", "[::1", ""})
        EXPECT_FALSE(uozdoip::split_host_port(text, 13400, host, port)) << text;
}

}  // namespace
