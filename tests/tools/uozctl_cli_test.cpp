// uozctl without an agent: input refused before anything is sent, broker
// problems told at once with their reason, configuration checks, exit codes.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "broker_fixture.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

const std::string kCtl = UOZCTL_PATH;
const std::string kExamples = UOZ_EXAMPLES;
const std::string kConfig = " --config " + kExamples + "/ecus.json";

// Nothing listens on the broker address: a value that got through would end
// in a connection failure (exit 1), not in exit 2.
TEST(UozctlCliTest, badValuesAreRefusedNamingTheOptionAndTheForm) {
    const std::string not_a_dtc =
        "' is not a DTC: give three bytes in hexadecimal (0x030100) or a code such as P0301 or "
        "P0301-00\n";
    const Expected cases[] = {
        {"dtc read engine --mask 0xZZ", 2, "",
         "uozctl: --mask '0xZZ' is not a hexadecimal number (e.g. 0x1F or 1F)\n", ""},
        {"dtc read engine --mask 0x100", 2, "",
         "uozctl: --mask '0x100' is out of range: at most 0xFF\n", ""},
        {"dtc read engine --report 0x06 --dtc P0301x", 2, "", "uozctl: --dtc 'P0301x" + not_a_dtc,
         ""},
        {"dtc read engine --report 0x06 --dtc 0x1234567", 2, "",
         "uozctl: --dtc '0x1234567" + not_a_dtc, ""},
        {"dtc read engine --report 0x99", 2, "",
         "uozctl: --report 0x99 is not supported (supported: 0x01-0x06, 0x09-0x16)\n", ""},
        {"dtc read engine --report 0x100", 2, "",
         "uozctl: --report '0x100' is out of range: at most 0xFF\n", ""},
        {"dtc read engine --report 0x06 --record 1G", 2, "",
         "uozctl: --record '1G' is not a hexadecimal number (e.g. 0x1F or 1F)\n", ""},
        {"dtc clear engine --group xyz", 2, "", "uozctl: --group 'xyz" + not_a_dtc, ""},
    };
    for (const Expected &expected : cases)
        expect_run(kCtl + " --broker localhost:1 --certs " + identity_dir("app") + kConfig,
                   expected);
    expect_run(
        kCtl + " --broker localhost --certs " + identity_dir("app") + kConfig,
        {"dtc read engine", 2, "",
         "uozctl: --broker 'localhost' must be HOST:PORT with a port from 1 to 65535\n", ""});
    // Certificates without a reply address are warned about.
    expect_run(kCtl + " --broker 127.0.0.1:1 --certs " + identity_dir("noaddr") + kConfig,
               {"dtc read engine", 1, "",
                "uozctl: warning: the certificate " + identity_dir("noaddr") +
                    "/cert.pem names no reply address (kt5:ua:...): no reply can reach this node; "
                    "make the identity with 'uoz-pki node --ua NAME'\n*"});
}

// Each failure is told well within 5 s with its reason, exit 1; the library
// would otherwise wait its 10 s for a reply.
TEST(UozctlCliTest, brokerProblemsAreToldAtOnceWithTheirReason) {
    Broker broker;
    std::string port = std::to_string(broker.port());
    // Takes the TLS handshake, but without the certificate as user name and
    // with no anonymous access it answers the CONNECT with "not authorised".
    Broker no_identity(pki_dir() + "/acl", "use_identity_as_username false\n");
    // A 70-letter label cannot be put into a DNS query: the name fails to
    // resolve without any packet leaving the machine.
    std::string unresolvable = std::string(70, 'x') + ".invalid";
    // Trusts our CA, but the node's own certificate comes from another one:
    // the broker refuses it only after the TLS 1.3 handshake.
    char mixed[] = "/tmp/uoz-mixed-XXXXXX";
    ASSERT_NE(mkdtemp(mixed), nullptr);
    ASSERT_EQ(system(("mkdir -p " + std::string(mixed) + "/node " + mixed + "/ca && cp " +
                      other_pki_dir() + "/intruder/*.pem " + mixed + "/node/ && cp " + pki_dir() +
                      "/ca/ca.pem " + mixed + "/ca/")
                         .c_str()),
              0);
    struct Case {
        std::string broker;
        std::string certs;
        std::string reason;
    };
    const Case cases[] = {
        {"127.0.0.1:1", identity_dir("app"),
         "cannot connect to the broker at 127.0.0.1:1: Connection refused\n"},
        {unresolvable + ":" + port, identity_dir("app"),
         "cannot resolve the broker's name '" + unresolvable + "': Name or service not known\n"},
        {"localhost:" + port, other_pki_dir() + "/intruder",
         "TLS verification of the broker's certificate failed: *"},
        {"localhost:" + port, identity_dir("expired"),
         "the certificate " + identity_dir("expired") + "/cert.pem expired on *"},
        {"localhost:" + port, pki_dir() + "/nobody",
         "cannot read " + pki_dir() + "/nobody/private.pem: No such file or directory*"},
        {"localhost:" + port, std::string(mixed) + "/node",
         "the broker at localhost:" + port + " refused this node's certificate (*"},
    };
    std::vector<Case> all(std::begin(cases), std::end(cases));
    if (getenv("UOZ_TEST_BROKER") == nullptr) {
        std::string other = "localhost:" + std::to_string(no_identity.port());
        all.push_back({other, identity_dir("app"),
                       "the broker at " + other + " refused the connection: not authorised\n"});
    }
    for (const Case &test : all) {
        SCOPED_TRACE(test.broker + " " + test.certs);
        ToolRun result =
            expect_run(kCtl + " --broker " + test.broker + " --certs " + test.certs + kConfig,
                       {"consent install C-1", 1, "", "uozctl: " + test.reason, ""});
        EXPECT_LT(result.seconds, 5.0);
    }
    system(("rm -rf " + std::string(mixed)).c_str());
}

TEST(UozctlCliTest, checkConfigAndEcusNameDroppedEntriesAndFileErrors) {
    char path[] = "/tmp/uoz-config-XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << R"({"configs": [
      {"type": "CANFD", "targetAddress": "0x7E0", "name": "engine"},
      {"type": "CAN", "targetAddress": "0x7E1", "name": "gearbox", "can": {"ifname": "can0"}},
      {"type": "CANFD", "targetAddress": "0x7E2", "name": "ENGINE"}]})";
    const Expected cases[] = {
        {"check-config", 2,
         "entry 0 engine: loaded\n"
         "entry 1 gearbox: dropped: no \"can\".\"func-addr\" text\n"
         "entry 2 ENGINE: loaded, but the name is already used by entry 0: look-ups by name reach "
         "that one\n" +
             std::string(path) + ": some entries are dropped or unreachable\n",
         "", "\"loaded\":false"},
        {"ecus", 0, "*engine*",
         "uozctl: warning: configuration entry 1 gearbox: no \"can\".\"func-addr\" text "
         "(dropped)\n*"},
    };
    for (const Expected &expected : cases)
        expect_run(kCtl + " --config " + path, expected);
    EXPECT_EQ(run(kCtl + " --config " + path + " ecus").out.find("gearbox"), std::string::npos);
    unlink(path);
}

// One table for all tools: 0 success, 1 cannot start, 2 invalid input or usage.
TEST(UozctlCliTest, exitCodesAndConventionsAreThoseOfEveryTool) {
    const std::string pki = UOZ_PKI_PATH;
    const Expected uozctl[] = {
        {"--version", 0, "uozctl " UOZ_VERSION "\n", ""},
        {"--help", 0, "*ECU configuration file (required)*"},
        {"", 2},
        {"--config x nosuchcommand", 2},
        {"ecus", 2, "", "uozctl: --config FILE is required: the ECU configuration file\n"},
        {"--config x --timeout 11 ecus", 2},
        {"--config x --timeout 0 ecus", 2},
        {"--config /nonexistent ecus", 1},
        {"--config /nonexistent/ecus.json check-config", 1, "",
         "uozctl: cannot read /nonexistent/ecus.json: No such file or directory\n"},
        {"check-config " + kExamples + "/ecus.json", 0, "*", "", ""},
        {kConfig + " dtc read engine --mask 1 --dtc 2", 2},
        {kConfig + " ecus", 0, "*transmission   0x7E1    CAN    J1939*", "", ""},
    };
    for (const Expected &expected : uozctl)
        expect_run(kCtl, expected);
    // Options may follow the command.
    EXPECT_TRUE(is_json(expect_run(kCtl, {"ecus" + kConfig + " --json", 0}).out));
    const Expected uoz_pki[] = {
        {"--version", 0, "uoz-pki " UOZ_VERSION "\n", ""},
        {"--help", 0},
        {"", 2},
        {"node --dir /tmp", 2},
        {"nosuchcommand --dir /tmp", 2},
        {"broker-config --dir /nonexistent/pki", 1},
    };
    for (const Expected &expected : uoz_pki)
        expect_run(pki, expected);
}

}  // namespace
}  // namespace uoztest
