// Strict parsing of command-line numbers: what is accepted, what is refused,
// and the message that names the option and the accepted form (the exact
// texts of hexadecimal numbers and DTCs are pinned by uozctl_cli_test).
#include "parse.h"

#include <gtest/gtest.h>
#include <string.h>

namespace {

using uoztools::parse_decimal;
using uoztools::parse_dtc;
using uoztools::parse_hex;
using uoztools::parse_host_port;

// A refused value is not stored, and the message names the option and the text.
TEST(ParseTest, hexadecimalWithOrWithoutPrefixWithinRange) {
    const struct {
        const char *text;
        uint32_t max, value;
    } accepted[] = {{"0xFF", 0xFF, 0xFF}, {"ff", 0xFF, 0xFF},
                    {"0X1f", 0xFF, 0x1F}, {"00000000002", 0xFF, 2},
                    {"0", 0xFF, 0},       {"FFFFFFFF", 0xFFFFFFFF, 0xFFFFFFFF}};
    for (const auto &test : accepted) {
        uint32_t value = 12345;
        std::string error;
        EXPECT_TRUE(parse_hex(test.text, test.max, "--mask", &value, &error)) << test.text;
        EXPECT_EQ(value, test.value) << test.text;
    }
    for (const char *text : {"0x100", "0xZZ", "", "0x", "1 ", "-1", "+1", "12g", "FFFFFFFFF"}) {
        uint32_t value = 12345;
        std::string error;
        uint32_t max = strlen(text) > 8 ? 0xFFFFFFFF : 0xFF;
        EXPECT_FALSE(parse_hex(text, max, "--mask", &value, &error)) << text;
        EXPECT_EQ(value, 12345u) << text;
        EXPECT_EQ(error.rfind("--mask '" + std::string(text) + "' ", 0), 0u) << error;
    }
    uint32_t value = 0;
    std::string error;
    ASSERT_FALSE(parse_hex("0x99", 0x16, "--report", &value, &error));
    EXPECT_EQ(error, "--report '0x99' is out of range: at most 0x16");
}

TEST(ParseTest, dtcsAsThreeBytesOrAsCodes) {
    const struct {
        const char *text;
        uint32_t value;
    } accepted[] = {{"P0301", 0x030100},    {"p0301", 0x030100},    {"P0301-00", 0x030100},
                    {"P0301-1A", 0x03011A}, {"C0035", 0x403500},    {"B1234", 0x923400},
                    {"U1001", 0xD00100},    {"U3FFF-FF", 0xFFFFFF}, {"0x030100", 0x030100},
                    {"030100", 0x030100},   {"FFFFFF", 0xFFFFFF}};
    std::string error;
    for (const auto &test : accepted) {
        uint32_t value = 0xABCDEF;
        EXPECT_TRUE(parse_dtc(test.text, "--dtc", &value, &error)) << test.text;
        EXPECT_EQ(value, test.value) << test.text;
    }
    for (const char *text :
         {"0x1234567", "P0401x", "P4000", "P03", "X0301", "P0301-0", "P0301_00", "xyz", ""}) {
        uint32_t value = 0xABCDEF;
        EXPECT_FALSE(parse_dtc(text, "--dtc", &value, &error)) << text;
        EXPECT_EQ(value, 0xABCDEFu) << text;
    }
}

TEST(ParseTest, decimalsAndBrokerAddresses) {
    long value = 0;
    std::string error;
    EXPECT_TRUE(parse_decimal("10", 1, 10, "--timeout", &value, &error));
    EXPECT_EQ(value, 10);
    for (const char *bad : {"11", "0", "", "-", "1.5", "0x5", "5s", "99999999999"}) {
        EXPECT_FALSE(parse_decimal(bad, 1, 10, "--timeout", &value, &error)) << bad;
        EXPECT_EQ(error,
                  "--timeout '" + std::string(bad) + "' must be a whole number from 1 to 10");
    }
    std::string host;
    int port = 0;
    EXPECT_TRUE(parse_host_port("localhost:8883", "--broker", &host, &port, &error));
    EXPECT_EQ(host, "localhost");
    EXPECT_EQ(port, 8883);
    EXPECT_TRUE(parse_host_port("[::1]:1883", "--broker", &host, &port, &error));
    EXPECT_EQ(host, "::1");
    EXPECT_EQ(port, 1883);
    for (const char *bad :
         {"localhost", "localhost:", ":8883", "localhost:0", "localhost:65536", "localhost:88a3"}) {
        EXPECT_FALSE(parse_host_port(bad, "--broker", &host, &port, &error)) << bad;
        EXPECT_EQ(error, "--broker '" + std::string(bad) +
                             "' must be HOST:PORT with a port from 1 to 65535");
    }
}

}  // namespace
