// What uozctl tells about configuration files and remote command documents
// before anything is sent.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "config_check.h"
#include "document_check.h"

namespace {

using uozctl::check_config;
using uozctl::check_document;
using uozctl::ConfigReport;

class ChecksTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(dir_), nullptr); }
    void TearDown() override { system((std::string("rm -rf ") + dir_).c_str()); }
    std::string write(const std::string &name, const std::string &text) {
        std::string path = std::string(dir_) + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    char dir_[24] = "/tmp/uoz-checks-XXXXXX";
};

const char kEntries[] = R"({"configs": [
  {"type": "CAN", "targetAddress": "0x7E0", "name": "engine",
   "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E0", "phy-resp-id": "0x7E8"}},
  {"type": "CAN", "targetAddress": "0x7E1", "name": "gearbox",
   "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E1"}},
  {"type": "DOIP", "targetAddress": "0x1001", "name": "telematics",
   "doip": {"sa": "0x0E80", "ta": "0x1001", "gw-ip": "192.168.10.1"},
   "ecu_version": {"uds": [{"did": "0xF189"}], "j1939": {"pgn": "0xFEDA"}}},
  {"type": "CAN", "targetAddress": "0x7E2",
   "can": {"ifname": "can0", "func-addr": "0x7DF", "phy-req-id": "0x7E2", "phy-resp-id": "0x7EA"}},
  {"type": "CANFD", "targetAddress": "0x7E5", "name": "Engine"},
  {"type": "CANFD", "targetAddress": "0x7E0", "name": "adas"},
  {"targetAddress": "0x7E6", "name": "notype"}
], "pre-defined-routines": [{"name": "ReadVIN", "commands": []}]})";

TEST_F(ChecksTest, eachEntrySaysWhetherItLoadsAndWhy) {
    ConfigReport report = check_config(write("ecus.json", kEntries));
    ASSERT_EQ(report.file_error, "");
    const struct {
        const char *name;
        bool loaded;
        const char *problem;
    } expected[] = {
        {"engine", true, ""},
        {"gearbox", false, "no \"can\".\"phy-resp-id\" text"},
        {"telematics", false, "\"ecu_version\" has both \"uds\" and \"j1939\""},
        {"", false, "no \"name\" text"},
        {"Engine", true, "the name is already used by entry 0: look-ups by name reach that one"},
        {"adas", true, "the target address is already used by entry 0 (engine)"},
        {"", false, "no \"type\" text"},
    };
    ASSERT_EQ(report.entries.size(), std::size(expected));
    for (size_t i = 0; i < report.entries.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(report.entries[i].index, i);
        EXPECT_EQ(report.entries[i].name, expected[i].name);
        EXPECT_EQ(report.entries[i].loaded, expected[i].loaded);
        EXPECT_EQ(report.entries[i].problem, expected[i].problem);
    }
    EXPECT_FALSE(report.all_usable());
    EXPECT_EQ(report.entries[0].target_address, 0x7E0);
    EXPECT_EQ(report.routines, std::vector<std::string>{"ReadVIN"});
}

// A missing file: see uozctl_cli_test.
TEST_F(ChecksTest, fileErrorsSayWhatTheSystemSaid) {
    const struct {
        const char *text;
        const char *error;
    } cases[] = {
        {"{\"configs\": [\n  {\"type\": \"CAN\",",
         " is not JSON: it ends in the middle of the document"},
        {"{\"configs\": [\n  {\"type\" \"CAN\"}]}",
         " is not JSON: object property name separator ':' expected at line 2, column 11"},
        {"{\"configs\": []}\n}", " is not JSON: text after the document at line 2, column 1"},
        {"{\"ecus\": []}", " is not an ECU configuration: it has no \"configs\" array"},
    };
    for (const auto &c : cases) {
        std::string path = write("config.json", c.text);
        EXPECT_EQ(check_config(path).file_error, path + c.error);
    }
    EXPECT_TRUE(check_config(write("empty-list.json", "{\"configs\": []}")).all_usable());
}

// A raw command for the ECU at `address`, with a validity period when given.
std::string raw_at(const std::string &address, const std::string &period = "") {
    return R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": ")" + address + "\"}" +
           (period.empty() ? "" : R"(, "diagnostic_period": )" + period) + "}";
}

std::string period(const std::string &start, const std::string &end) {
    return R"({"start_time": ")" + start + R"(", "end_time": ")" + end + "\"}";
}

TEST_F(ChecksTest, remoteCommandDocumentsAreCheckedFieldByField) {
    ConfigReport config = check_config(write("ecus.json", kEntries));
    const time_t now = 1780272000;  // 2026-06-01T00:00:00Z
    const std::string utc = "expected a UTC time such as \"2026-01-31T23:59:59Z\"";
    const std::string unknown = "ecu.ServerAddress: no configured ECU has the address ";
    const struct {
        std::string document;
        std::string problem;
    } cases[] = {
        {R"({"commands": [{"type": "predefined", "command": "ReadVIN"}],
             "ecu": {"ServerAddress": "0x7E0"}})",
         ""},
        {R"({"commands": [{"type": "predefined", "command": "ReadVIM"}],
             "ecu": {"ServerAddress": "0x7E0"}})",
         "commands[0].command: the configuration has no pre-defined routine 'ReadVIM' (it has: "
         "ReadVIN)"},
        {R"({"commands": [{"type": "predefined"}], "ecu": {"ServerAddress": "0x7E0"}})",
         "commands[0].command: a predefined command needs the routine's name"},
        {R"({"commands": [], "ecu": {"ServerAddress": "0x7E0"}})",
         "commands: expected a non-empty array of commands"},
        {R"({"ecu": {"ServerAddress": "0x7E0"}})",
         "commands: expected a non-empty array of commands"},
        {R"({"commands": [{"type": "raw", "service": "0x22"}]})",
         "ecu.ServerAddress: expected the target address as a text, e.g. \"0x7E0\""},
        {raw_at("0x999"), unknown + "0x999 (see 'uozctl ecus')"},
        {raw_at("engine"), "ecu.ServerAddress: 'engine' is not a hexadecimal address"},
        {raw_at("FFFFFFFF"), ""},
        {raw_at("0x7E1"), unknown + "0x7E1 (see 'uozctl ecus')"},
        {raw_at("0x7E0", period("2026-01-01", "2027-01-01T00:00:00Z")),
         "diagnostic_period.start_time: " + utc},
        {raw_at("0x7E0", R"({"start_time": "2026-01-01T00:00:00Z"})"),
         "diagnostic_period.end_time: " + utc},
        {raw_at("0x7E0", period("2026-01-01T00:00:00Z", "2026-05-31T23:59:59Z")),
         "diagnostic_period: the command expired at 2026-05-31T23:59:59Z"},
        {raw_at("0x7E0", period("2026-07-01T00:00:00Z", "2026-08-01T00:00:00Z")),
         "diagnostic_period: the command is not valid before 2026-07-01T00:00:00Z"},
        {raw_at("0x7E0", period("2026-08-01T00:00:00Z", "2026-07-01T00:00:00Z")),
         "diagnostic_period: end_time 2026-07-01T00:00:00Z is before start_time "
         "2026-08-01T00:00:00Z"},
        {"[1, 2]", "the document must be a JSON object"},
        {"{\"commands\": [", "the document is not JSON: it ends in the middle of the document"},
    };
    for (const auto &test : cases)
        EXPECT_EQ(check_document(test.document, config, now), test.problem) << test.document;
}

}  // namespace
