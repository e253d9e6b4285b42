// tools/common: strict parsing of command-line numbers (the exact refusal
// texts are pinned by uozctl's golden files), colour on terminals, whole
// files, JSON member look-ups and owned descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "files.h"
#include "json_helpers.h"
#include "parse.h"
#include "scoped_fd.h"
#include "terminal.h"

namespace {

using uoztools::parse_dtc;
using uoztools::parse_hex;

// A refused value is not stored.
TEST(ParseTest, hexadecimalWithOrWithoutPrefixWithinRange) {
    const struct {
        const char *text;
        uint32_t max, value;
    } accepted[] = {{"0xFF", 0xFF, 0xFF}, {"ff", 0xFF, 0xFF},
                    {"0X1f", 0xFF, 0x1F}, {"00000000002", 0xFF, 2},
                    {"0", 0xFF, 0},       {"FFFFFFFF", 0xFFFFFFFF, 0xFFFFFFFF}};
    std::string error;
    for (const auto &test : accepted) {
        uint32_t value = 12345;
        EXPECT_TRUE(parse_hex(test.text, test.max, "--mask", &value, &error)) << test.text;
        EXPECT_EQ(value, test.value) << test.text;
    }
    for (const char *text : {"0x100", "0xZZ", "", "0x", "1 ", "-1", "+1", "12g"}) {
        uint32_t value = 12345;
        EXPECT_FALSE(parse_hex(text, 0xFF, "--mask", &value, &error)) << text;
        EXPECT_EQ(value, 12345u) << text;
    }
    uint32_t value = 12345;
    EXPECT_FALSE(parse_hex("FFFFFFFFF", 0xFFFFFFFF, "--mask", &value, &error));
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
    EXPECT_TRUE(uoztools::parse_decimal("10", 1, 10, "--timeout", &value, &error));
    EXPECT_EQ(value, 10);
    for (const char *bad : {"11", "0", "", "-", "1.5", "0x5", "5s", "99999999999"}) {
        EXPECT_FALSE(uoztools::parse_decimal(bad, 1, 10, "--timeout", &value, &error)) << bad;
        EXPECT_EQ(error,
                  "--timeout '" + std::string(bad) + "' must be a whole number from 1 to 10");
    }
    std::string host;
    int port = 0;
    EXPECT_TRUE(uoztools::parse_host_port("[::1]:1883", "--broker", &host, &port, &error));
    EXPECT_EQ(host + " " + std::to_string(port), "::1 1883");
    for (const char *bad : {"localhost:", ":8883", "localhost:0", "localhost:65536", "a:88a3"})
        EXPECT_FALSE(uoztools::parse_host_port(bad, "--broker", &host, &port, &error)) << bad;
}

TEST(TerminalTest, colourOnATerminalOnlyAndNeverWithNoColor) {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    uoztools::ScopedFd terminal(open(ptsname(master), O_RDWR | O_NOCTTY)), pty(master);
    ASSERT_TRUE(terminal.valid());
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    uoztools::ScopedFd reading(pipe_fds[0]), writing(pipe_fds[1]);
    unsetenv("NO_COLOR");
    setenv("TERM", "xterm", 1);
    EXPECT_TRUE(uoztools::colour_allowed(terminal.get()));
    EXPECT_FALSE(uoztools::colour_allowed(writing.get()));
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(uoztools::colour_allowed(terminal.get()));
    // An empty NO_COLOR does not count.
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(uoztools::colour_allowed(terminal.get()));
    setenv("TERM", "dumb", 1);
    EXPECT_FALSE(uoztools::colour_allowed(terminal.get()));
    unsetenv("NO_COLOR");
}

// Text members only; the descriptor closed once, by its last owner; a file
// that cannot be read is named with the system's reason.
TEST(CommonTest, jsonMembersDescriptorsAndFiles) {
    uoztools::JsonPtr object(json_tokener_parse(R"({"a": "x", "n": 1, "o": {}})"));
    EXPECT_STREQ(uoztools::text_member(object.get(), "a"), "x");
    for (const char *key : {"n", "o", "missing"})
        EXPECT_EQ(uoztools::text_member(object.get(), key), nullptr) << key;
    EXPECT_EQ(uoztools::text_member(nullptr, "a"), nullptr);
    int fd = open("/dev/null", O_RDONLY);
    {
        uoztools::ScopedFd first(fd);
        uoztools::ScopedFd second(std::move(first));
        EXPECT_FALSE(first.valid());
        EXPECT_EQ(second.get(), fd);
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    std::string content, error;
    EXPECT_TRUE(uoztools::read_text_file("/proc/self/comm", &content, &error));
    EXPECT_EQ(content, "tools_unit_test\n");
    EXPECT_FALSE(uoztools::read_text_file("/nonexistent/x", &content, &error));
    EXPECT_EQ(error, "cannot read /nonexistent/x: No such file or directory");
}

}  // namespace
