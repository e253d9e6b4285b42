// uozctl without an agent: input refused before anything is sent, broker
// problems told at once with their reason, configuration checks, exit codes.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "broker_fixture.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

std::string uozctl_with(const std::string &broker, const std::string &certs) {
    return std::string(UOZCTL_PATH) + " --broker " + broker + " --certs " + certs + " --config " +
           UOZ_EXAMPLES + "/ecus.json ";
}

struct Refusal {
    const char *arguments;
    const char *message;
};

// Nothing listens on the broker address: a value that got through would end
// in a connection failure (exit 1), not in exit 2.
TEST(UozctlCliTest, badValuesAreRefusedNamingTheOptionAndTheForm) {
    const Refusal cases[] = {
        {"dtc read engine --mask 0xZZ",
         "--mask '0xZZ' is not a hexadecimal number (e.g. 0x1F or 1F)"},
        {"dtc read engine --mask 0x100", "--mask '0x100' is out of range: at most 0xFF"},
        {"dtc read engine --report 0x06 --dtc P0301x",
         "--dtc 'P0301x' is not a DTC: give three bytes in hexadecimal (0x030100) or a code such "
         "as P0301 or P0301-00"},
        {"dtc read engine --report 0x06 --dtc 0x1234567",
         "--dtc '0x1234567' is not a DTC: give three bytes in hexadecimal (0x030100) or a code "
         "such as P0301 or P0301-00"},
        {"dtc read engine --report 0x99",
         "--report 0x99 is not supported (supported: 0x01-0x06, 0x09-0x16)"},
        {"dtc read engine --report 0x100", "--report '0x100' is out of range: at most 0xFF"},
        {"dtc read engine --report 0x06 --record 1G",
         "--record '1G' is not a hexadecimal number (e.g. 0x1F or 1F)"},
        {"dtc clear engine --group xyz",
         "--group 'xyz' is not a DTC: give three bytes in hexadecimal (0x030100) or a code such "
         "as P0301 or P0301-00"},
        {"--broker localhost dtc read engine",
         "--broker 'localhost' must be HOST:PORT with a port from 1 to 65535"},
    };
    std::string base = std::string(UOZCTL_PATH) + " --certs " + identity_dir("app") + " --config " +
                       UOZ_EXAMPLES + "/ecus.json ";
    for (const Refusal &test : cases) {
        std::string arguments = test.arguments;
        if (arguments.rfind("--broker", 0) != 0)
            arguments = "--broker localhost:1 " + arguments;
        ToolRun result = run(base + arguments);
        EXPECT_EQ(result.code, 2) << test.arguments << "\n" << result.err;
        EXPECT_EQ(result.err, "uozctl: " + std::string(test.message) + "\n") << test.arguments;
        EXPECT_EQ(result.out, "");
        ToolRun json = run(base + "--json " + arguments);
        EXPECT_EQ(json.code, 2);
        EXPECT_TRUE(is_json(json.out)) << json.out;
        EXPECT_NE(json.out.find("\"exit_code\":2"), std::string::npos) << json.out;
    }
}

struct ConnectionCase {
    const char *what;
    std::string broker;
    std::string certs;
    std::string reason;
};

// Each failure is told well within 5 s with its reason, exit 1; the library
// would otherwise wait its 10 s for a reply.
TEST(UozctlCliTest, brokerProblemsAreToldAtOnceWithTheirReason) {
    Broker broker;
    std::string port = std::to_string(broker.port());
    // A 70-letter label cannot be put into a DNS query: the name fails to
    // resolve without any packet leaving the machine.
    std::string unresolvable = std::string(70, 'x') + ".invalid";
    const ConnectionCase cases[] = {
        {"broker down", "127.0.0.1:1", identity_dir("app"),
         "cannot connect to the broker at 127.0.0.1:1: Connection refused"},
        {"unknown host", unresolvable + ":" + port, identity_dir("app"),
         "cannot resolve the broker's name '" + unresolvable + "': Name or service not known"},
        {"another CA", "localhost:" + port, other_pki_dir() + "/intruder",
         "TLS verification of the broker's certificate failed: "},
        {"expired", "localhost:" + port, identity_dir("expired"),
         "the certificate " + identity_dir("expired") + "/cert.pem expired on "},
        {"no identity", "localhost:" + port, pki_dir() + "/nobody",
         "cannot read " + pki_dir() + "/nobody/private.pem: No such file or directory"},
    };
    for (const ConnectionCase &test : cases) {
        ToolRun result = run(uozctl_with(test.broker, test.certs) + "dtc read engine");
        EXPECT_EQ(result.code, 1) << test.what << "\n" << result.err;
        EXPECT_EQ(result.err.rfind("uozctl: " + test.reason, 0), 0u) << test.what << result.err;
        EXPECT_LT(result.seconds, 5.0) << test.what;
        ToolRun json = run(uozctl_with(test.broker, test.certs) + "--json consent install C-1");
        EXPECT_EQ(json.code, 1) << test.what;
        EXPECT_TRUE(is_json(json.out)) << test.what << json.out;
    }
}

// The broker verifies the client's certificate after the TLS 1.3 handshake:
// its refusal must still be told as such.
TEST(UozctlCliTest, aCertificateTheBrokerRefusesIsNamed) {
    Broker broker;
    char dir[] = "/tmp/uoz-mixed-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string mixed = dir;
    // Trusts our CA, but the node's own certificate comes from another one.
    ASSERT_EQ(system(("mkdir -p " + mixed + "/node " + mixed + "/ca && cp " + other_pki_dir() +
                      "/intruder/*.pem " + mixed + "/node/ && cp " + pki_dir() + "/ca/ca.pem " +
                      mixed + "/ca/")
                         .c_str()),
              0);
    ToolRun result =
        run(uozctl_with("localhost:" + std::to_string(broker.port()), mixed + "/node") +
            "dtc read engine");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err.rfind("uozctl: the broker at localhost:" + std::to_string(broker.port()) +
                                   " refused this node's certificate (",
                               0),
              0u)
        << result.err;
    system(("rm -rf " + mixed).c_str());
}

TEST(UozctlCliTest, anIdentityWithoutReplyAddressIsWarnedAbout) {
    ToolRun result = run(uozctl_with("127.0.0.1:1", identity_dir("noaddr")) + "dtc read engine");
    EXPECT_NE(result.err.find("uozctl: warning: the certificate " + identity_dir("noaddr") +
                              "/cert.pem names no reply address (kt5:ua:...): no reply can reach "
                              "this node; make the identity with 'uoz-pki node --ua NAME'\n"),
              std::string::npos)
        << result.err;
}

TEST(UozctlCliTest, checkConfigNamesDroppedEntriesAndFileErrors) {
    char path[] = "/tmp/uoz-config-XXXXXX";
    int fd = mkstemp(path);
    close(fd);
    std::ofstream(path) << R"({"configs": [
      {"type": "CANFD", "targetAddress": "0x7E0", "name": "engine"},
      {"type": "CAN", "targetAddress": "0x7E1", "name": "gearbox", "can": {"ifname": "can0"}},
      {"type": "CANFD", "targetAddress": "0x7E2", "name": "ENGINE"}]})";
    std::string base = std::string(UOZCTL_PATH) + " --config " + path + " ";
    ToolRun check = run(base + "check-config");
    EXPECT_EQ(check.code, 2);
    EXPECT_EQ(check.out,
              std::string("entry 0 engine: loaded\n"
                          "entry 1 gearbox: dropped: no \"can\".\"func-addr\" text\n"
                          "entry 2 ENGINE: loaded, but the name is already used by entry "
                          "0: look-ups by name reach that one\n") +
                  path + ": some entries are dropped or unreachable\n");
    ToolRun ecus = run(base + "ecus");
    EXPECT_EQ(ecus.code, 0);
    EXPECT_EQ(ecus.out.find("gearbox"), std::string::npos) << ecus.out;
    EXPECT_NE(
        ecus.err.find("uozctl: warning: configuration entry 1 gearbox: no \"can\".\"func-addr\" "
                      "text (dropped)\n"),
        std::string::npos)
        << ecus.err;
    ToolRun json = run(base + "--json check-config");
    EXPECT_TRUE(is_json(json.out)) << json.out;
    EXPECT_NE(json.out.find("\"loaded\":false"), std::string::npos);
    unlink(path);
    ToolRun missing =
        run(std::string(UOZCTL_PATH) + " --config /nonexistent/ecus.json check-config");
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.err,
              "uozctl: cannot read /nonexistent/ecus.json: No such file or directory\n");
    ToolRun good = run(std::string(UOZCTL_PATH) + " check-config " + UOZ_EXAMPLES + "/ecus.json");
    EXPECT_EQ(good.code, 0) << good.err;
}

struct ExitCase {
    const char *command;
    int code;
};

// One table for all tools: 0 success, 1 cannot start, 2 invalid input or usage.
TEST(UozctlCliTest, exitCodesAndConventionsAreThoseOfEveryTool) {
    std::string pki = std::string(UOZ_PKI_PATH);
    std::string ctl = std::string(UOZCTL_PATH);
    const ExitCase cases[] = {
        {"uozctl --version", 0},
        {"uozctl --help", 0},
        {"uozctl", 2},
        {"uozctl --config x nosuchcommand", 2},
        {"uozctl ecus", 2},
        {"uozctl --config x --timeout 11 ecus", 2},
        {"uozctl --config x --timeout 0 ecus", 2},
        {"uozctl --config /nonexistent ecus", 1},
        {"uoz-pki --version", 0},
        {"uoz-pki --help", 0},
        {"uoz-pki", 2},
        {"uoz-pki node --dir /tmp", 2},
        {"uoz-pki nosuchcommand --dir /tmp", 2},
        {"uoz-pki broker-config --dir /nonexistent/pki", 1},
    };
    for (const ExitCase &test : cases) {
        std::string command = test.command;
        std::string path =
            command.rfind("uozctl", 0) == 0 ? ctl + command.substr(6) : pki + command.substr(7);
        ToolRun result = run(path);
        EXPECT_EQ(result.code, test.code) << test.command << "\n" << result.err;
    }
    ToolRun version = run(ctl + " --version");
    EXPECT_EQ(version.out, "uozctl " UOZ_VERSION "\n");
    EXPECT_EQ(run(pki + " --version").out, "uoz-pki " UOZ_VERSION "\n");
    EXPECT_NE(run(ctl + " --help").out.find("ECU configuration file (required)"),
              std::string::npos);
    EXPECT_EQ(run(ctl + " ecus").err,
              "uozctl: --config FILE is required: the ECU configuration file\n");
    // Options may follow the command.
    ToolRun after = run(ctl + " ecus --config " + UOZ_EXAMPLES + "/ecus.json --json");
    EXPECT_EQ(after.code, 0) << after.err;
    EXPECT_TRUE(is_json(after.out));
}

}  // namespace
}  // namespace uoztest
