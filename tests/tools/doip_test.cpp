#include "doip.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using uozdoip::FrameReader;
using uozdoip::Message;

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// Every message the reader gives back for `stream` fed in chunks of the given sizes
// (the last chunk takes the rest).
std::vector<Message> frame(FrameReader &reader, const Bytes &stream, std::vector<size_t> cuts) {
    std::vector<Message> messages;
    size_t at = 0;
    cuts.push_back(stream.size());
    for (size_t cut : cuts) {
        reader.feed(stream.data() + at, cut - at);
        at = cut;
        Message message;
        while (reader.next(message) == FrameReader::Result::kMessage)
            messages.push_back(message);
    }
    return messages;
}

const Bytes kDiagRequest = {0x02, 0xFD, 0x80, 0x01, 0x00, 0x00, 0x00, 0x07,
                            0x0E, 0x00, 0x07, 0xE0, 0x19, 0x02, 0xFF};
const Bytes kDiagAck = {0x02, 0xFD, 0x80, 0x02, 0x00, 0x00, 0x00,
                        0x05, 0x07, 0xE0, 0x0E, 0x00, 0x00};
const Bytes kAliveCheck = {0x03, 0xFC, 0x00, 0x07, 0x00, 0x00, 0x00, 0x00};

TEST(DoipHeader, EncodesVersionInverseTypeAndLength) {
    auto head = uozdoip::encode_header({0x02, 0x8001, 0x01020304});
    EXPECT_EQ(Bytes(head.begin(), head.end()),
              (Bytes{0x02, 0xFD, 0x80, 0x01, 0x01, 0x02, 0x03, 0x04}));
}

struct VersionCase {
    uint8_t version;
    uint8_t inverse;
    bool any_allowed;
    bool valid;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const VersionCase &c, std::ostream *os) {
    *os << static_cast<int>(c.version) << "/" << static_cast<int>(c.inverse);
}

class DoipVersionPair : public ::testing::TestWithParam<VersionCase> {};

TEST_P(DoipVersionPair, IsValidOnlyForKnownVersionAndItsInverse) {
    const VersionCase &c = GetParam();
    EXPECT_EQ(uozdoip::version_pair_valid(c.version, c.inverse, c.any_allowed), c.valid);
    Bytes head = {c.version, c.inverse, 0x80, 0x01, 0, 0, 0, 5};
    EXPECT_EQ(uozdoip::decode_header(head.data(), head.size(), c.any_allowed).has_value(), c.valid);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DoipVersionPair,
    ::testing::Values(VersionCase{0x02, 0xFD, false, true}, VersionCase{0x03, 0xFC, false, true},
                      VersionCase{0x01, 0xFE, false, false}, VersionCase{0x04, 0xFB, false, false},
                      VersionCase{0x02, 0xFC, false, false}, VersionCase{0x02, 0x02, false, false},
                      VersionCase{0xFF, 0x00, false, false}, VersionCase{0xFF, 0x00, true, true},
                      VersionCase{0x00, 0xFF, true, false}));

TEST(DoipHeader, DecodesTypeAndLength) {
    auto header = uozdoip::decode_header(kDiagRequest.data(), kDiagRequest.size());
    ASSERT_TRUE(header);
    EXPECT_EQ(header->version, 0x02);
    EXPECT_EQ(header->payload_type, 0x8001);
    EXPECT_EQ(header->payload_length, 7u);
    EXPECT_FALSE(uozdoip::decode_header(kDiagRequest.data(), 7));
}

TEST(DoipFrameReader, FramesAStreamSplitAtEveryOffset) {
    const Bytes stream = concat({kDiagRequest, kDiagAck, kAliveCheck});
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        FrameReader reader;
        std::vector<Message> messages = frame(reader, stream, {cut});
        ASSERT_EQ(messages.size(), 3u) << "cut at " << cut;
        EXPECT_EQ(uozdoip::encode_message(messages[0]), kDiagRequest) << "cut at " << cut;
        EXPECT_EQ(uozdoip::encode_message(messages[1]), kDiagAck) << "cut at " << cut;
        EXPECT_EQ(uozdoip::encode_message(messages[2]), kAliveCheck) << "cut at " << cut;
        EXPECT_EQ(reader.buffered(), 0u);
    }
}

TEST(DoipFrameReader, FramesAStreamFedByteByByte) {
    const Bytes stream = concat({kDiagAck, kDiagRequest});
    std::vector<size_t> cuts;
    for (size_t at = 1; at < stream.size(); ++at)
        cuts.push_back(at);
    FrameReader reader;
    std::vector<Message> messages = frame(reader, stream, cuts);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].payload_type, 0x8002);
    EXPECT_EQ(messages[1].payload, (Bytes{0x0E, 0x00, 0x07, 0xE0, 0x19, 0x02, 0xFF}));
}

TEST(DoipFrameReader, GivesEveryMessageOfOneCoalescedRead) {
    FrameReader reader;
    std::vector<Message> messages =
        frame(reader, concat({kDiagAck, kDiagRequest, kAliveCheck, kDiagAck}), {});
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[0].payload_type, 0x8002);
    EXPECT_EQ(messages[1].payload_type, 0x8001);
    EXPECT_EQ(messages[2].payload_type, 0x0007);
    EXPECT_EQ(messages[2].version, 0x03);
    EXPECT_TRUE(messages[2].payload.empty());
    EXPECT_EQ(messages[3].payload_type, 0x8002);
}

TEST(DoipFrameReader, NeedsMoreUntilThePayloadIsComplete) {
    FrameReader reader;
    Message message;
    reader.feed(kDiagRequest.data(), kDiagRequest.size() - 1);
    EXPECT_EQ(reader.next(message), FrameReader::Result::kNeedMore);
    EXPECT_EQ(reader.buffered(), kDiagRequest.size() - 1);
    reader.feed(&kDiagRequest.back(), 1);
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
    EXPECT_EQ(reader.next(message), FrameReader::Result::kNeedMore);
}

TEST(DoipFrameReader, ReportsABadVersionPairAndStaysBroken) {
    FrameReader reader;
    Message message;
    Bytes stream = concat({kDiagAck, {0x02, 0xFC, 0x80, 0x01, 0, 0, 0, 1, 0x3E}, kDiagAck});
    reader.feed(stream.data(), stream.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
    EXPECT_EQ(reader.next(message), FrameReader::Result::kBadVersion);
    EXPECT_EQ(reader.bad_header().version, 0x02);
    EXPECT_EQ(reader.bad_header().payload_type, 0x8001);
    EXPECT_EQ(reader.next(message), FrameReader::Result::kBadVersion);
    reader.feed(kDiagAck.data(), kDiagAck.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kBadVersion);
    reader.reset();
    reader.feed(kDiagAck.data(), kDiagAck.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
}

TEST(DoipFrameReader, AcceptsAnyVersionOnlyWhenAskedTo) {
    Bytes identification = {0xFF, 0x00, 0x00, 0x01, 0, 0, 0, 0};
    Message message;
    FrameReader strict;
    strict.feed(identification.data(), identification.size());
    EXPECT_EQ(strict.next(message), FrameReader::Result::kBadVersion);
    FrameReader lenient(uozdoip::kDefaultMaxPayload, true);
    lenient.feed(identification.data(), identification.size());
    EXPECT_EQ(lenient.next(message), FrameReader::Result::kMessage);
    EXPECT_EQ(message.version, 0xFF);
}

// An oversized message is reported once, its payload skipped wherever the
// reads split it, and the next message framed as usual.
TEST(DoipFrameReader, SkipsAnOversizedPayloadSplitAnywhere) {
    Bytes oversized = {0x02, 0xFD, 0x80, 0x01, 0, 0, 0, 20};
    oversized.resize(oversized.size() + 20, 0xAA);
    const Bytes stream = concat({oversized, kDiagAck});
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        FrameReader reader(16);
        Message message;
        int too_large = 0;
        std::vector<Message> messages;
        for (auto [from, to] : {std::pair<size_t, size_t>{0, cut}, {cut, stream.size()}}) {
            reader.feed(stream.data() + from, to - from);
            for (;;) {
                FrameReader::Result result = reader.next(message);
                if (result == FrameReader::Result::kTooLarge)
                    ++too_large;
                else if (result == FrameReader::Result::kMessage)
                    messages.push_back(message);
                else
                    break;
            }
        }
        EXPECT_EQ(too_large, 1) << "cut at " << cut;
        EXPECT_EQ(reader.bad_header().payload_length, 20u);
        ASSERT_EQ(messages.size(), 1u) << "cut at " << cut;
        EXPECT_EQ(uozdoip::encode_message(messages[0]), kDiagAck);
    }
}

TEST(DoipFrameReader, AcceptsAPayloadExactlyAtTheCap) {
    Bytes at_cap = {0x02, 0xFD, 0x80, 0x01, 0, 0, 0, 16};
    at_cap.resize(at_cap.size() + 16, 0x55);
    FrameReader reader(16);
    Message message;
    reader.feed(at_cap.data(), at_cap.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
    EXPECT_EQ(message.payload.size(), 16u);
}

TEST(DoipFrameReader, DoesNotBufferAHugeDeclaredLength) {
    Bytes huge = {0x02, 0xFD, 0x80, 0x01, 0xFF, 0xFF, 0xFF, 0xFF};
    FrameReader reader;
    Message message;
    reader.feed(huge.data(), huge.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kTooLarge);
    Bytes chunk(4096, 0x11);
    reader.feed(chunk.data(), chunk.size());
    EXPECT_EQ(reader.next(message), FrameReader::Result::kNeedMore);
    EXPECT_EQ(reader.buffered(), 0u);
}

// ---- Payloads: exact bytes each way ----

struct EncodeCase {
    std::string name;
    Bytes encoded;
    Bytes expected;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const EncodeCase &c, std::ostream *os) {
    *os << c.name;
}

class DoipEncode : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(DoipEncode, WritesTheExactBytes) {
    EXPECT_EQ(GetParam().encoded, GetParam().expected);
}

std::vector<EncodeCase> encode_cases() {
    using namespace uozdoip;
    VehicleAnnouncement announcement;
    const std::string vin = "WUOZ0000000000001";
    std::copy(vin.begin(), vin.end(), announcement.vin.begin());
    announcement.logical_address = 0x0E80;
    announcement.eid = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    announcement.gid = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    Bytes announced = {0x02, 0xFD, 0x00, 0x04, 0, 0, 0, 32};
    announced.insert(announced.end(), vin.begin(), vin.end());
    announced.insert(announced.end(),
                     {0x0E, 0x80, 0x02, 0, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x02, 0x00});
    return {
        {"routing_request",
         encode(RoutingActivationRequest{0x0E00, 0x00, 0, std::nullopt}),
         {0x02, 0xFD, 0x00, 0x05, 0, 0, 0, 7, 0x0E, 0x00, 0x00, 0, 0, 0, 0}},
        {"routing_request_oem",
         encode(RoutingActivationRequest{0x0E00, 0xE0, 0, 0x11223344}),
         {0x02, 0xFD, 0x00, 0x05, 0, 0, 0, 11, 0x0E, 0x00, 0xE0, 0, 0, 0, 0, 0x11, 0x22, 0x33,
          0x44}},
        {"routing_response",
         encode(RoutingActivationResponse{0x0E00, 0x1000, 0x10, 0, std::nullopt}, 0x03),
         {0x03, 0xFC, 0x00, 0x06, 0, 0, 0, 9, 0x0E, 0x00, 0x10, 0x00, 0x10, 0, 0, 0, 0}},
        {"routing_denied",
         encode(RoutingActivationResponse{0x0E00, 0x1000, 0x00, 0, std::nullopt}),
         {0x02, 0xFD, 0x00, 0x06, 0, 0, 0, 9, 0x0E, 0x00, 0x10, 0x00, 0x00, 0, 0, 0, 0}},
        {"diagnostic_message", encode(DiagnosticMessage{0x0E00, 0x07E0, {0x19, 0x02, 0xFF}}),
         kDiagRequest},
        {"diagnostic_ack", encode(DiagnosticAck{false, 0x07E0, 0x0E00, 0x00, {}}), kDiagAck},
        {"diagnostic_nack",
         encode(DiagnosticAck{true, 0x0777, 0x0E00, 0x03, {0x22, 0xF1}}),
         {0x02, 0xFD, 0x80, 0x03, 0, 0, 0, 7, 0x07, 0x77, 0x0E, 0x00, 0x03, 0x22, 0xF1}},
        {"generic_nack", encode_generic_nack(0x02), {0x02, 0xFD, 0x00, 0x00, 0, 0, 0, 1, 0x02}},
        {"alive_check_request", encode_alive_check_request(), {0x02, 0xFD, 0x00, 0x07, 0, 0, 0, 0}},
        {"alive_check_response",
         encode_alive_check_response(0x0E00),
         {0x02, 0xFD, 0x00, 0x08, 0, 0, 0, 2, 0x0E, 0x00}},
        {"vehicle_id_request", encode(VehicleIdRequest{}), {0xFF, 0x00, 0x00, 0x01, 0, 0, 0, 0}},
        {"vehicle_id_by_eid",
         encode(VehicleIdRequest{payload::kVehicleIdRequestByEid, {1, 2, 3, 4, 5, 6}}, 0x02),
         {0x02, 0xFD, 0x00, 0x02, 0, 0, 0, 6, 1, 2, 3, 4, 5, 6}},
        {"vehicle_announcement", encode(announcement), announced},
    };
}

INSTANTIATE_TEST_SUITE_P(Table, DoipEncode, ::testing::ValuesIn(encode_cases()),
                         [](const auto &info) { return info.param.name; });

Message parse_one(const Bytes &bytes) {
    FrameReader reader(uozdoip::kDefaultMaxPayload, true);
    reader.feed(bytes.data(), bytes.size());
    Message message;
    EXPECT_EQ(reader.next(message), FrameReader::Result::kMessage);
    return message;
}

TEST(DoipParse, RoutingActivationRequestWithAndWithoutOem) {
    auto plain = uozdoip::parse_routing_activation_request(
        parse_one({0x02, 0xFD, 0x00, 0x05, 0, 0, 0, 7, 0x0E, 0x01, 0x01, 0, 0, 0, 0}));
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->source, 0x0E01);
    EXPECT_EQ(plain->activation_type, 0x01);
    EXPECT_FALSE(plain->oem);
    auto oem = uozdoip::parse_routing_activation_request(parse_one(
        {0x02, 0xFD, 0x00, 0x05, 0, 0, 0, 11, 0x0E, 0x01, 0x00, 0, 0, 0, 0, 0xA, 0xB, 0xC, 0xD}));
    ASSERT_TRUE(oem);
    EXPECT_EQ(*oem->oem, 0x0A0B0C0Du);
}

TEST(DoipParse, RoutingActivationResponseGivesTheEntityAndCode) {
    auto response = uozdoip::parse_routing_activation_response(
        parse_one({0x02, 0xFD, 0x00, 0x06, 0, 0, 0, 9, 0x0E, 0x00, 0x10, 0x00, 0x07, 0, 0, 0, 0}));
    ASSERT_TRUE(response);
    EXPECT_EQ(response->tester, 0x0E00);
    EXPECT_EQ(response->entity, 0x1000);
    EXPECT_EQ(response->code, 0x07);
    EXPECT_STREQ(uozdoip::routing_code_name(response->code), "denied: TLS required");
}

TEST(DoipParse, DiagnosticMessageAndAcks) {
    auto message = uozdoip::parse_diagnostic_message(parse_one(kDiagRequest));
    ASSERT_TRUE(message);
    EXPECT_EQ(message->source, 0x0E00);
    EXPECT_EQ(message->target, 0x07E0);
    EXPECT_EQ(message->data, (Bytes{0x19, 0x02, 0xFF}));

    auto ack = uozdoip::parse_diagnostic_ack(parse_one(kDiagAck));
    ASSERT_TRUE(ack);
    EXPECT_FALSE(ack->negative);
    EXPECT_EQ(ack->source, 0x07E0);
    EXPECT_EQ(ack->code, 0x00);

    auto nack = uozdoip::parse_diagnostic_ack(
        parse_one({0x02, 0xFD, 0x80, 0x03, 0, 0, 0, 5, 0x07, 0x77, 0x0E, 0x00, 0x03}));
    ASSERT_TRUE(nack);
    EXPECT_TRUE(nack->negative);
    EXPECT_EQ(nack->code, 0x03);
    EXPECT_STREQ(uozdoip::diag_nack_name(nack->code), "unknown target address");
}

TEST(DoipParse, AliveCheckVehicleIdentificationAndGenericNack) {
    EXPECT_EQ(uozdoip::parse_alive_check_response(
                  parse_one({0x02, 0xFD, 0x00, 0x08, 0, 0, 0, 2, 0x0E, 0x00})),
              std::optional<uint16_t>(0x0E00));
    EXPECT_EQ(uozdoip::parse_generic_nack(parse_one({0x02, 0xFD, 0x00, 0x00, 0, 0, 0, 1, 0x04})),
              std::optional<uint8_t>(0x04));
    auto by_vin = uozdoip::parse_vehicle_id_request(
        parse_one(uozdoip::encode(uozdoip::VehicleIdRequest{0x0003, Bytes(17, 'W')})));
    ASSERT_TRUE(by_vin);
    EXPECT_EQ(by_vin->filter, Bytes(17, 'W'));

    uozdoip::VehicleAnnouncement sent;
    sent.logical_address = 0x1000;
    sent.further_action = 0x10;
    sent.sync_status = 0x00;
    auto received = uozdoip::parse_vehicle_announcement(parse_one(uozdoip::encode(sent)));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->logical_address, 0x1000);
    EXPECT_EQ(received->further_action, 0x10);
    EXPECT_EQ(received->sync_status, std::optional<uint8_t>(0x00));
}

struct RejectCase {
    std::string name;
    Bytes message;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const RejectCase &c, std::ostream *os) {
    *os << c.name;
}

class DoipParseRejects : public ::testing::TestWithParam<RejectCase> {};

// Each payload parser refuses any other payload type and any wrong length.
TEST_P(DoipParseRejects, WrongTypeOrLength) {
    Message message = parse_one(GetParam().message);
    EXPECT_FALSE(uozdoip::parse_routing_activation_request(message));
    EXPECT_FALSE(uozdoip::parse_routing_activation_response(message));
    EXPECT_FALSE(uozdoip::parse_diagnostic_message(message));
    EXPECT_FALSE(uozdoip::parse_diagnostic_ack(message));
    EXPECT_FALSE(uozdoip::parse_generic_nack(message));
    EXPECT_FALSE(uozdoip::parse_alive_check_response(message));
    EXPECT_FALSE(uozdoip::parse_vehicle_id_request(message));
    EXPECT_FALSE(uozdoip::parse_vehicle_announcement(message));
}

INSTANTIATE_TEST_SUITE_P(
    Table, DoipParseRejects,
    ::testing::Values(
        RejectCase{"routing_request_8",
                   {0x02, 0xFD, 0x00, 0x05, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0}},
        RejectCase{"routing_response_10",
                   {0x02, 0xFD, 0x00, 0x06, 0, 0, 0, 10, 0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0}},
        RejectCase{"diagnostic_without_data", {0x02, 0xFD, 0x80, 0x01, 0, 0, 0, 4, 0, 0, 0, 0}},
        RejectCase{"ack_without_code", {0x02, 0xFD, 0x80, 0x02, 0, 0, 0, 4, 0, 0, 0, 0}},
        RejectCase{"generic_nack_2", {0x02, 0xFD, 0x00, 0x00, 0, 0, 0, 2, 0, 0}},
        RejectCase{"alive_response_3", {0x02, 0xFD, 0x00, 0x08, 0, 0, 0, 3, 0, 0, 0}},
        RejectCase{"id_by_eid_5", {0x02, 0xFD, 0x00, 0x02, 0, 0, 0, 5, 1, 2, 3, 4, 5}},
        RejectCase{"unknown_type", {0x02, 0xFD, 0x12, 0x34, 0, 0, 0, 0}}),
    [](const auto &info) { return info.param.name; });

TEST(DoipNames, NameEveryCodeAndSayUnknownOtherwise) {
    EXPECT_STREQ(uozdoip::payload_type_name(0x8001), "diagnostic message");
    EXPECT_STREQ(uozdoip::payload_type_name(0x1234), "unknown");
    EXPECT_STREQ(uozdoip::routing_code_name(0x10), "success");
    EXPECT_STREQ(uozdoip::routing_code_name(0x42), "unknown");
    EXPECT_STREQ(uozdoip::diag_nack_name(0x06), "target unreachable");
    EXPECT_STREQ(uozdoip::generic_nack_name(0x00), "incorrect pattern format");
}

// ---- POSIX helpers ----

TEST(DoipIo, WriteAllThenReadIntoFramesAcrossASocketPair) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    uozdoip::ScopedFd left(pair[0]);
    uozdoip::ScopedFd right(pair[1]);
    ASSERT_TRUE(uozdoip::write_all(left.get(), concat({kDiagRequest, kDiagAck})));
    FrameReader reader;
    std::vector<Message> messages;
    Message message;
    while (messages.size() < 2) {
        ASSERT_GT(uozdoip::read_into(right.get(), reader), 0);
        while (reader.next(message) == FrameReader::Result::kMessage)
            messages.push_back(message);
    }
    EXPECT_EQ(messages[1].payload_type, 0x8002);
    left.reset();
    EXPECT_EQ(uozdoip::read_into(right.get(), reader), 0);
}

TEST(DoipIo, WriteAllFailsWithoutSignalWhenThePeerIsGone) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    uozdoip::ScopedFd left(pair[0]);
    close(pair[1]);
    EXPECT_FALSE(uozdoip::write_all(left.get(), kDiagAck));
    EXPECT_EQ(errno, EPIPE);
}

TEST(DoipIo, WriteAllWorksOnAPipe) {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    uozdoip::ScopedFd reading(pipe_fds[0]);
    uozdoip::ScopedFd writing(pipe_fds[1]);
    ASSERT_TRUE(uozdoip::write_all(writing.get(), kDiagAck));
    uint8_t got[32];
    EXPECT_EQ(read(reading.get(), got, sizeof(got)), static_cast<ssize_t>(kDiagAck.size()));
}

TEST(DoipIo, ScopedFdClosesOnceAndMovesOwnership) {
    int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    {
        uozdoip::ScopedFd first(fd);
        uozdoip::ScopedFd second(std::move(first));
        EXPECT_FALSE(first.valid());
        EXPECT_EQ(second.get(), fd);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

struct HostPortCase {
    std::string text;
    bool ok;
    std::string host;
    uint16_t port;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const HostPortCase &c, std::ostream *os) {
    *os << '"' << c.text << '"';
}

class DoipHostPort : public ::testing::TestWithParam<HostPortCase> {};

TEST_P(DoipHostPort, Splits) {
    std::string host;
    uint16_t port = 0;
    const HostPortCase &c = GetParam();
    ASSERT_EQ(uozdoip::split_host_port(c.text.c_str(), 13400, host, port), c.ok) << c.text;
    if (c.ok) {
        EXPECT_EQ(host, c.host);
        EXPECT_EQ(port, c.port);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, DoipHostPort,
    ::testing::Values(
        HostPortCase{"127.0.0.1:13401", true, "127.0.0.1", 13401},
        HostPortCase{"127.0.0.1", true, "127.0.0.1", 13400},
        HostPortCase{"localhost:0", true, "localhost", 0},
        HostPortCase{"[::1]:13400", true, "::1", 13400}, HostPortCase{"[::1]", true, "::1", 13400},
        HostPortCase{"::1", true, "::1", 13400}, HostPortCase{"127.0.0.1:", false, "", 0},
        HostPortCase{":13400", false, "", 0}, HostPortCase{"127.0.0.1:65536", false, "", 0},
        HostPortCase{"127.0.0.1:12a", false, "", 0}, HostPortCase{"[::1", false, "", 0},
        HostPortCase{"", false, "", 0}));

}  // namespace
