// uoz-pki as a person uses it: nothing overwritten without --force, paths the
// broker can open from anywhere, a reply address for applications, and one
// command that adds a node and its access rules.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

#include "file_text.h"
#include "identity.h"
#include "pki.h"
#include "tool_runner.h"

namespace uoztest {
namespace {

class PkiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/uoz-pki-test-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override { system(("rm -rf " + dir_).c_str()); }
    // uoz-pki run in dir_, so that relative paths are relative to it.
    std::string program() { return "cd " + dir_ + " && " + UOZ_PKI_PATH; }
    ToolRun pki(const std::string &arguments) { return run(program() + " " + arguments); }
    std::string text_of(const std::string &name) { return file_text(dir_ + "/pki/" + name); }
    std::string dir_;
};

TEST_F(PkiTest, initAndNodeRefuseToReplaceWithoutForce) {
    ASSERT_EQ(pki("init --dir pki").code, 0);
    std::string ca = text_of("ca/ca.pem");
    expect_run(program(), {"init --dir pki", 2, "",
                           "uoz-pki: pki/ca/ca.pem exists: init would replace the CA and so "
                           "invalidate every identity it signed; add --force to replace it\n"});
    EXPECT_EQ(text_of("ca/ca.pem"), ca);

    ASSERT_EQ(pki("node --dir pki --id app").code, 0);
    std::string identity = text_of("app/cert.pem");
    expect_run(program(), {"node --dir pki --id app --ua /other", 2, "",
                           "uoz-pki: " + dir_ +
                               "/pki/app/cert.pem exists: node would replace this identity; add "
                               "--force to replace it\n"});
    EXPECT_EQ(text_of("app/cert.pem"), identity);

    EXPECT_EQ(pki("node --dir pki --id app --ua /other --force").code, 0);
    EXPECT_NE(text_of("app/cert.pem"), identity);
    EXPECT_EQ(pki("init --dir pki --force").code, 0);
    EXPECT_NE(text_of("ca/ca.pem"), ca);
}

TEST_F(PkiTest, applicationsGetAReplyAddressUnlessTheyAskForNone) {
    ASSERT_EQ(pki("init --dir pki").code, 0);
    expect_run(program(), {"node --dir pki --id diag-app", 0,
                           "created node      " + dir_ +
                               "/pki/diag-app/cert.pem (addresses: ua:/uoz/diag-app)\n"});
    expect_run(program(), {"node --dir pki --id bare --no-reply-address", 0,
                           "created node      " + dir_ +
                               "/pki/bare/cert.pem (addresses: none: replies only on its reply route)\n"});
    std::vector<uozpki::NodeAddresses> nodes =
        uozpki::read_nodes(dir_ + "/pki", {"diag-app", "bare"});
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0].addresses, std::vector<std::string>{"ua/uoz/diag-app"});
    EXPECT_TRUE(nodes[1].addresses.empty());
}

// The bus client finds the files where uoz-pki puts them: each whole, with
// its terminating NUL counted.
TEST_F(PkiTest, theBusClientLoadsTheIdentitiesItMakes) {
    ASSERT_EQ(pki("init --dir pki").code, 0);
    ASSERT_EQ(pki("node --dir pki --id app").code, 0);
    kt5bus_identity identity{};
    ASSERT_TRUE(uozbus::load_identity(&identity, dir_ + "/pki/app"));
    auto text = [](const kt5bus_buffer *buffer) {
        EXPECT_EQ(static_cast<const char *>(buffer->data)[buffer->length - 1], '\0');
        return std::string(static_cast<const char *>(buffer->data), buffer->length - 1);
    };
    EXPECT_EQ(identity.kind, KT5BUS_IDENTITY_X509);
    EXPECT_EQ(text(identity.x509.private_key), text_of("app/private.pem"));
    EXPECT_EQ(text(identity.x509.chain[0]), text_of("app/cert.pem"));
    EXPECT_EQ(text(identity.x509.trust[0]), text_of("ca/ca.pem"));
    EXPECT_EQ(identity.x509.chain[1], nullptr);
    EXPECT_EQ(identity.x509.trust[1], nullptr);
    uozbus::free_identity(&identity);
    EXPECT_EQ(identity.kind, 0);
    unlink((dir_ + "/pki/ca/ca.pem").c_str());
    EXPECT_FALSE(uozbus::load_identity(&identity, dir_ + "/pki/app"));
    EXPECT_EQ(identity.x509.private_key, nullptr);
}

// Paths the broker can open from anywhere; access rules between applications
// and the agents that serve them, each way, and nothing else.
TEST_F(PkiTest, brokerConfigurationWithAbsolutePathsAndRulesThatNameTheSender) {
    ASSERT_EQ(pki("init --dir pki").code, 0);
    ASSERT_EQ(pki("node --dir pki --id app --ua /uoz/app").code, 0);
    ASSERT_EQ(pki("node --dir pki --id agent --ua /ZDATA/UDS --group policy-agent").code, 0);
    ASSERT_EQ(pki("broker-config --dir pki --port 18883").code, 0);
    std::string conf = text_of("mosquitto.conf");
    for (const char *line : {"acl_file ", "cafile ", "certfile ", "keyfile "}) {
        size_t at = conf.find(std::string("\n") + line);
        ASSERT_NE(at, std::string::npos) << line;
        EXPECT_EQ(conf.compare(at + 1 + strlen(line), dir_.size() + 5, dir_ + "/pki/"), 0) << conf;
    }
    ToolRun added = pki("add --dir pki --id infotainment --ua /info");
    EXPECT_EQ(added.code, 0) << added.err;
    EXPECT_NE(added.out.find("reload the broker so that it reads the new ACL"), std::string::npos);
    std::string acl = text_of("acl");
    EXPECT_EQ(acl.find("pattern write kt5/msg/%u/#"), std::string::npos) << acl;
    // Each node's rules, after the header: golden/pki_acl.txt.
    EXPECT_TRUE(matches(acl, "*" + file_text(UOZ_GOLDEN "/pki_acl.txt"))) << acl;

    ASSERT_EQ(pki("broker-config --dir pki --port 18883 --open-acl").code, 0);
    acl = text_of("acl");
    EXPECT_NE(acl.find("pattern write kt5/msg/%u/#"), std::string::npos) << acl;
    // Only the serving nodes answer on reply routes, in this mode too.
    EXPECT_NE(acl.find("group/policy-agent\ntopic write kt5/reply/+/+/agent\n\nuser app\n"),
              std::string::npos)
        << acl;
    // 'add' keeps the mode the ACL was written with.
    ASSERT_EQ(pki("add --dir pki --id second --ua /second").code, 0);
    acl = text_of("acl");
    EXPECT_NE(acl.find("pattern write kt5/msg/%u/#"), std::string::npos) << acl;
    EXPECT_NE(acl.find("user second\ntopic read kt5/presence/#\ntopic read kt5/msg/+/ua/second\n"),
              std::string::npos)
        << acl;
}

}  // namespace
}  // namespace uoztest
