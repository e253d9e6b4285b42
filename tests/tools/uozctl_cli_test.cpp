// uozctl without an agent: input refused before anything is sent, broker
// problems told at once with their reason, configuration checks, exit codes,
// and doip discover, which talks to the simulator directly.
// The expected outputs are golden files in golden/.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "broker_fixture.h"
#include "processes.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

const std::string kCtl = UOZCTL_PATH;
const std::string kExamples = UOZ_EXAMPLES;
const std::string kGolden = UOZ_GOLDEN;

// The values every golden file of these tests may name, and `more`.
std::map<std::string, std::string> values(std::map<std::string, std::string> more = {}) {
    more["EXAMPLES"] = kExamples;
    more["PKI"] = pki_dir();
    more["VERSION"] = UOZ_VERSION;
    more["INPUTS"] = kGolden + "/inputs";
    return more;
}

// Nothing listens on the broker addresses: a value that got through would
// end in a connection failure (exit 1), not in exit 2.
TEST(UozctlCliTest, badValuesAreRefusedNamingTheOptionAndTheForm) {
    expect_golden(kCtl + " --config " + kExamples + "/ecus.json", kGolden + "/uozctl_refusals.txt",
                  values());
}

// Each failure is told well within 5 s with its reason, exit 1; the library
// would otherwise wait its 10 s for a reply.
TEST(UozctlCliTest, brokerProblemsAreToldAtOnceWithTheirReason) {
    Broker broker;
    Broker no_identity(pki_dir() + "/acl", "use_identity_as_username false\n");
    char mixed[] = "/tmp/uoz-mixed-XXXXXX";
    ASSERT_NE(mkdtemp(mixed), nullptr);
    ASSERT_EQ(system(("mkdir -p " + std::string(mixed) + "/node " + mixed + "/ca && cp " +
                      other_pki_dir() + "/intruder/*.pem " + mixed + "/node/ && cp " + pki_dir() +
                      "/ca/ca.pem " + mixed + "/ca/")
                         .c_str()),
              0);
    // A 70-letter label cannot be put into a DNS query: the name fails to
    // resolve without any packet leaving the machine.
    std::map<std::string, std::string> broker_values =
        values({{"PORT", std::to_string(broker.port())},
                {"NOAUTH", std::to_string(no_identity.port())},
                {"UNRESOLVABLE", std::string(70, 'x') + ".invalid"},
                {"OTHER_PKI", other_pki_dir()},
                {"MIXED", mixed}});
    for (const GoldenCase &test : golden_cases(kGolden + "/uozctl_broker.txt", broker_values)) {
        SCOPED_TRACE(test.name);
        // Another broker in mosquitto's place ignores mosquitto's settings.
        if (test.name == "not_authorised" && getenv("UOZ_TEST_BROKER") != nullptr)
            continue;
        EXPECT_LT(
            expect_run(kCtl + " --config " + kExamples + "/ecus.json", expected_of(test)).seconds,
            5.0);
    }
    system(("rm -rf " + std::string(mixed)).c_str());
}

// One table for all tools: 0 success, 1 cannot start, 2 invalid input or usage.
TEST(UozctlCliTest, usageConfigurationChecksAndExitCodes) {
    expect_golden(kCtl, kGolden + "/uozctl_usage.txt", values());
    expect_golden(UOZ_PKI_PATH, kGolden + "/pki_usage.txt", values());
}

// doip discover needs neither broker nor --config: the simulator's entities
// over loopback UDP, found, filtered and shown with status and power mode.
TEST(UozctlCliTest, doipDiscoverShowsTheSimulatorsEntities) {
    const std::string second = std::to_string(free_loopback_port());
    EcuSimulator simulator(UOZ_ECUSIM_PATH, {"--power-mode", "not-ready", "--entity",
                                             "127.0.0.1:" + second + ",0x1010"});
    expect_golden(kCtl, kGolden + "/uozctl_discover.txt",
                  values({{"PORT", std::to_string(simulator.port())}, {"SECOND", second}}));
}

}  // namespace
}  // namespace uoztest
