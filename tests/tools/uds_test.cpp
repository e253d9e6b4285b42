#include "uds.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "hex_text.h"

namespace {

struct KeyCase {
    uint8_t level;
    uint32_t seed;
    uint32_t key;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const KeyCase &c, std::ostream *os) {
    *os << static_cast<int>(c.level) << "/" << c.seed;
}

class UdsBuiltinKey : public ::testing::TestWithParam<KeyCase> {};

// Expected keys worked out from the documented formula outside this code.
TEST_P(UdsBuiltinKey, FollowsTheDocumentedFormula) {
    EXPECT_EQ(uozuds::builtin_key(GetParam().level, GetParam().seed), GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(Table, UdsBuiltinKey,
                         ::testing::Values(KeyCase{0x01, 0x11223344, 0x976CE25B},
                                           KeyCase{0x03, 0xDEADBEEF, 0x28D6EB37},
                                           KeyCase{0x21, 0x00000000, 0xD550A8F3},
                                           KeyCase{0x20, 0x5A17C3E9, 0x20202020},
                                           KeyCase{0x7F, 0xFFFFFFFF, 0xD2739D8A}));

TEST(UdsBuiltinKey, DependsOnTheLevel) {
    EXPECT_NE(uozuds::builtin_key(0x01, 0x12345678), uozuds::builtin_key(0x03, 0x12345678));
}

struct NameCase {
    uint8_t code;
    std::string name;
};

// Shown in test names and failures instead of the bytes of the object.
void PrintTo(const NameCase &c, std::ostream *os) {
    *os << static_cast<int>(c.code);
}

class UdsNrcName : public ::testing::TestWithParam<NameCase> {};

TEST_P(UdsNrcName, IsTheIsoName) {
    EXPECT_EQ(uozuds::nrc_name(GetParam().code), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(
    Table, UdsNrcName,
    ::testing::Values(NameCase{0x10, "generalReject"}, NameCase{0x11, "serviceNotSupported"},
                      NameCase{0x12, "subFunctionNotSupported"},
                      NameCase{0x13, "incorrectMessageLengthOrInvalidFormat"},
                      NameCase{0x21, "busyRepeatRequest"}, NameCase{0x22, "conditionsNotCorrect"},
                      NameCase{0x24, "requestSequenceError"}, NameCase{0x31, "requestOutOfRange"},
                      NameCase{0x33, "securityAccessDenied"}, NameCase{0x35, "invalidKey"},
                      NameCase{0x36, "exceedNumberOfAttempts"},
                      NameCase{0x37, "requiredTimeDelayNotExpired"},
                      NameCase{0x78, "requestCorrectlyReceived-ResponsePending"},
                      NameCase{0x7E, "subFunctionNotSupportedInActiveSession"},
                      NameCase{0x7F, "serviceNotSupportedInActiveSession"},
                      NameCase{0x00, "unknown"}, NameCase{0xFF, "unknown"}));

TEST(UdsServiceName, NamesServicesAndSaysUnknownOtherwise) {
    EXPECT_STREQ(uozuds::service_name(0x19), "ReadDTCInformation");
    EXPECT_STREQ(uozuds::service_name(0x27), "SecurityAccess");
    EXPECT_STREQ(uozuds::service_name(0x31), "RoutineControl");
    EXPECT_STREQ(uozuds::service_name(0x01), "unknown");
}

TEST(UdsHexText, BytesCompactAndSpacedInUpperCase) {
    const uint8_t bytes[] = {0x59, 0x02, 0xFF, 0x0a};
    EXPECT_EQ(uozuds::hex_compact(bytes, sizeof(bytes)), "5902FF0A");
    EXPECT_EQ(uozuds::hex_spaced(bytes, sizeof(bytes)), "59 02 FF 0A");
    EXPECT_EQ(uozuds::hex_spaced(bytes, 1), "59");
    EXPECT_EQ(uozuds::hex_compact(bytes, 0), "");
    EXPECT_EQ(uozuds::hex_spaced(nullptr, 0), "");
}

TEST(UdsHexText, NumbersWithAtLeastTheDigitsAsked) {
    EXPECT_EQ(uozuds::hex_number(0x7E0, 4), "0x07E0");
    EXPECT_EQ(uozuds::hex_number(0x0A, 2), "0x0A");
    EXPECT_EQ(uozuds::hex_number(0x030100, 6), "0x030100");
    EXPECT_EQ(uozuds::hex_number(0x1234, 2), "0x1234");
    EXPECT_EQ(uozuds::hex_number(0xFFFFFFFF, 8), "0xFFFFFFFF");
}

TEST(UdsHexText, ParsesPrefixedAndBareNumbersOfUpToEightDigits) {
    uint32_t value = 0;
    EXPECT_TRUE(uozuds::parse_hex_number("0X7e0", &value));
    EXPECT_EQ(value, 0x7E0u);
    EXPECT_TRUE(uozuds::parse_hex_number("FFFFFFFF", &value));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    value = 5;
    for (const char *bad : {"", "0x", "7G", "1 2", "-1", "0x123456789", "\xC3\xA9"})
        EXPECT_FALSE(uozuds::parse_hex_number(bad, &value)) << bad;
    EXPECT_FALSE(uozuds::parse_hex_number(nullptr, &value));
    EXPECT_EQ(value, 5u);  // untouched when refused
    EXPECT_EQ(uozuds::hex_digit('b'), 11);
    EXPECT_EQ(uozuds::hex_digit('F'), 15);
    EXPECT_EQ(uozuds::hex_digit('g'), -1);
}

}  // namespace
