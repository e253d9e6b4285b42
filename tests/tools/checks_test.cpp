// What uozctl tells about configuration files and remote command documents
// before anything is sent.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "config_check.h"
#include "document_check.h"

namespace {

using uozctl::check_config;
using uozctl::check_document;
using uozctl::ConfigReport;

class ChecksTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/uoz-checks-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override { system(("rm -rf " + dir_).c_str()); }
    std::string write(const std::string &name, const std::string &text) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    std::string dir_;
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
    ASSERT_EQ(report.entries.size(), 7u);
    struct Expected {
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
    for (size_t i = 0; i < report.entries.size(); ++i) {
        EXPECT_EQ(report.entries[i].index, i);
        EXPECT_EQ(report.entries[i].name, expected[i].name) << i;
        EXPECT_EQ(report.entries[i].loaded, expected[i].loaded) << i;
        EXPECT_EQ(report.entries[i].problem, expected[i].problem) << i;
    }
    EXPECT_FALSE(report.all_usable());
    EXPECT_EQ(report.entries[0].target_address, 0x7E0);
    ASSERT_EQ(report.routines.size(), 1u);
    EXPECT_EQ(report.routines[0], "ReadVIN");
}

TEST_F(ChecksTest, fileErrorsSayWhatTheSystemSaid) {
    EXPECT_EQ(check_config(dir_ + "/missing.json").file_error,
              "cannot read " + dir_ + "/missing.json: No such file or directory");
    std::string truncated = write("truncated.json", "{\"configs\": [\n  {\"type\": \"CAN\",");
    EXPECT_EQ(check_config(truncated).file_error,
              truncated + " is not JSON: it ends in the middle of the document");
    std::string broken = write("broken.json", "{\"configs\": [\n  {\"type\" \"CAN\"}]}");
    EXPECT_EQ(check_config(broken).file_error,
              broken +
                  " is not JSON: object property name separator ':' expected at line 2, "
                  "column 11");
    std::string trailing = write("trailing.json", "{\"configs\": []}\n}");
    EXPECT_EQ(check_config(trailing).file_error,
              trailing + " is not JSON: text after the document at line 2, column 1");
    std::string other = write("other.json", "{\"ecus\": []}");
    EXPECT_EQ(check_config(other).file_error,
              other + " is not an ECU configuration: it has no \"configs\" array");
    EXPECT_TRUE(check_config(write("empty-list.json", "{\"configs\": []}")).all_usable());
}

struct DocumentCase {
    const char *document;
    const char *problem;
};

TEST_F(ChecksTest, remoteCommandDocumentsAreCheckedFieldByField) {
    ConfigReport config = check_config(write("ecus.json", kEntries));
    // 2026-06-01T00:00:00Z
    const time_t now = 1780272000;
    const DocumentCase cases[] = {
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
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x999"}})",
         "ecu.ServerAddress: no configured ECU has the address 0x999 (see 'uozctl ecus')"},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "engine"}})",
         "ecu.ServerAddress: 'engine' is not a hexadecimal address"},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "FFFFFFFF"}})", ""},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x7E1"}})",
         "ecu.ServerAddress: no configured ECU has the address 0x7E1 (see 'uozctl ecus')"},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x7E0"},
             "diagnostic_period": {"start_time": "2026-01-01", "end_time": "2027-01-01T00:00:00Z"}})",
         "diagnostic_period.start_time: expected a UTC time such as \"2026-01-31T23:59:59Z\""},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x7E0"},
             "diagnostic_period": {"start_time": "2026-01-01T00:00:00Z"}})",
         "diagnostic_period.end_time: expected a UTC time such as \"2026-01-31T23:59:59Z\""},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x7E0"},
             "diagnostic_period": {"start_time": "2026-01-01T00:00:00Z",
                                   "end_time": "2026-05-31T23:59:59Z"}})",
         "diagnostic_period: the command expired at 2026-05-31T23:59:59Z"},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x7E0"},
             "diagnostic_period": {"start_time": "2026-07-01T00:00:00Z",
                                   "end_time": "2026-08-01T00:00:00Z"}})",
         "diagnostic_period: the command is not valid before 2026-07-01T00:00:00Z"},
        {R"({"commands": [{"type": "raw"}], "ecu": {"ServerAddress": "0x7E0"},
             "diagnostic_period": {"start_time": "2026-08-01T00:00:00Z",
                                   "end_time": "2026-07-01T00:00:00Z"}})",
         "diagnostic_period: end_time 2026-07-01T00:00:00Z is before start_time "
         "2026-08-01T00:00:00Z"},
        {"[1, 2]", "the document must be a JSON object"},
        {"{\"commands\": [", "the document is not JSON: it ends in the middle of the document"},
    };
    for (const DocumentCase &test : cases)
        EXPECT_EQ(check_document(test.document, config, now), test.problem) << test.document;
}

}  // namespace
