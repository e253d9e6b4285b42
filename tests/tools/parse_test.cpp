// Strict parsing of command-line numbers: what is accepted, what is refused,
// and the message that names the option and the accepted form.
#include "parse.h"

#include <gtest/gtest.h>

namespace {

using uoztools::parse_decimal;
using uoztools::parse_dtc;
using uoztools::parse_hex;
using uoztools::parse_host_port;

struct HexCase {
    const char *text;
    uint32_t max;
    bool ok;
    uint32_t value;
};

TEST(ParseTest, hexadecimalWithOrWithoutPrefixWithinRange) {
    const HexCase cases[] = {
        {"0xFF", 0xFF, true, 0xFF},
        {"ff", 0xFF, true, 0xFF},
        {"0X1f", 0xFF, true, 0x1F},
        {"00000000002", 0xFF, true, 2},
        {"0", 0xFF, true, 0},
        {"0x100", 0xFF, false, 0},
        {"0xZZ", 0xFF, false, 0},
        {"", 0xFF, false, 0},
        {"0x", 0xFF, false, 0},
        {"1 ", 0xFF, false, 0},
        {"-1", 0xFF, false, 0},
        {"+1", 0xFF, false, 0},
        {"12g", 0xFF, false, 0},
        {"FFFFFFFFF", 0xFFFFFFFF, false, 0},
        {"FFFFFFFF", 0xFFFFFFFF, true, 0xFFFFFFFF},
    };
    for (const HexCase &test : cases) {
        uint32_t value = 12345;
        std::string error;
        EXPECT_EQ(parse_hex(test.text, test.max, "--mask", &value, &error), test.ok) << test.text;
        if (test.ok) {
            EXPECT_EQ(value, test.value) << test.text;
        } else {
            EXPECT_EQ(value, 12345u) << "a refused value must not be stored: " << test.text;
            EXPECT_EQ(error.rfind("--mask '" + std::string(test.text) + "' ", 0), 0u) << error;
        }
    }
}

TEST(ParseTest, refusalsNameTheAcceptedForm) {
    uint32_t value = 0;
    std::string error;
    ASSERT_FALSE(parse_hex("0xZZ", 0xFF, "--mask", &value, &error));
    EXPECT_EQ(error, "--mask '0xZZ' is not a hexadecimal number (e.g. 0x1F or 1F)");
    ASSERT_FALSE(parse_hex("0x99", 0x16, "--report", &value, &error));
    EXPECT_EQ(error, "--report '0x99' is out of range: at most 0x16");
    ASSERT_FALSE(parse_dtc("0x1234567", "--dtc", &value, &error));
    EXPECT_EQ(error,
              "--dtc '0x1234567' is not a DTC: give three bytes in hexadecimal (0x030100) or a "
              "code such as P0301 or P0301-00");
}

struct DtcCase {
    const char *text;
    bool ok;
    uint32_t value;
};

TEST(ParseTest, dtcsAsThreeBytesOrAsCodes) {
    const DtcCase cases[] = {
        {"P0301", true, 0x030100},
        {"p0301", true, 0x030100},
        {"P0301-00", true, 0x030100},
        {"P0301-1A", true, 0x03011A},
        {"C0035", true, 0x403500},
        {"B1234", true, 0x923400},
        {"U1001", true, 0xD00100},
        {"U3FFF-FF", true, 0xFFFFFF},
        {"0x030100", true, 0x030100},
        {"030100", true, 0x030100},
        {"FFFFFF", true, 0xFFFFFF},
        {"0x1234567", false, 0},
        {"P0401x", false, 0},
        {"P4000", false, 0},
        {"P03", false, 0},
        {"X0301", false, 0},
        {"P0301-0", false, 0},
        {"P0301_00", false, 0},
        {"xyz", false, 0},
        {"", false, 0},
    };
    for (const DtcCase &test : cases) {
        uint32_t value = 0xABCDEF;
        std::string error;
        EXPECT_EQ(parse_dtc(test.text, "--dtc", &value, &error), test.ok) << test.text;
        EXPECT_EQ(value, test.ok ? test.value : 0xABCDEFu) << test.text;
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
