// Which ECUs a query addresses, and over which transport.
#include "query_targets.h"

#include <gtest/gtest.h>

#include "file_text.h"
#include "golden.h"

namespace uozagent {
namespace {

const char kEcus[] = R"({"configs":[
  {"type":"CAN","targetAddress":"0x7E0","name":"engine","can":{"ifname":"can0","phy-req-id":"0x7E0"}},
  {"type":"IOC","targetAddress":"0x20","name":"gateway","ioc":{"bus-id":"1","phy-req-id":"0x720"}},
  {"type":"DOIP","targetAddress":"0x1001","name":"telematics","doip":{"sa":"0x0E80","ta":"0x1001","gw-ip":"127.0.0.1"}}]})";

const char kEngineQuery[] = R"({"mode":"CAN","targetAddress":"0x07E0",
  "can":{"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0x0A","bsize":"0x08"}})";
const char kAllQuery[] = R"({"mode":"IOC","targetAddress":"-1","ioc":[
  {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0x00","bsize":"0x00"},
  {"bus-id":"1","func-addr":"0x7DF","phy-req-id":"0x720","phy-resp-id":"0x728"}]})";

std::vector<EcuTarget> targets_of(const char *body, const AgentSettings &settings,
                                  bool *broadcast) {
    JsonPtr json(json_tokener_parse(body));
    return query_targets(json.get(), settings, broadcast);
}

TEST(QueryTargetsTest, aDoipBlockGivesGatewayTesterAndLogicalAddress) {
    AgentSettings settings;
    settings.doip_port = 13411;
    settings.gateway_addresses["192.168.10.1"] = "127.0.0.2";
    bool broadcast = true;
    auto targets = targets_of(
        R"({"mode":"DOIP","targetAddress":"0x1001","doip":{"sa":"0x0E80","ta":"0x1001","gw-ip":"192.168.10.1"}})",
        settings, &broadcast);
    ASSERT_EQ(targets.size(), 1u);
    EXPECT_FALSE(broadcast);
    EXPECT_EQ(targets[0].transport, Transport::kDoip);
    EXPECT_EQ(targets[0].label, "0x1001");
    EXPECT_EQ(targets[0].doip.host, "127.0.0.2");
    EXPECT_EQ(targets[0].doip.port, 13411);
    EXPECT_EQ(targets[0].doip.tester_address, 0x0E80);
    EXPECT_EQ(targets[0].doip.logical_address, 0x1001);
}

TEST(QueryTargetsTest, aCanBlockGivesTheIsotpParameters) {
    bool broadcast = true;
    auto targets = targets_of(kEngineQuery, AgentSettings{}, &broadcast);
    ASSERT_EQ(targets.size(), 1u);
    EXPECT_EQ(targets[0].transport, Transport::kCan);
    EXPECT_EQ(targets[0].label, "0x7E0");
    EXPECT_EQ(targets[0].can.ifname, "can0");
    EXPECT_EQ(targets[0].can.request_id, 0x7E0u);
    EXPECT_EQ(targets[0].can.response_id, 0x7E8u);
    EXPECT_EQ(targets[0].can.st_min, 0x0A);
    EXPECT_EQ(targets[0].can.block_size, 0x08);
}

TEST(QueryTargetsTest, routedEcusGoThroughTheGatewayByLogicalAddress) {
    AgentSettings settings;
    settings.learn_ecus(kEcus);
    settings.gateway.enabled = true;
    settings.gateway.host = "127.0.0.1";
    settings.gateway.port = 13500;
    settings.gateway.tester_address = 0x0E81;
    settings.gateway.ecus["engine"] = -1;                // its target address
    settings.gateway.ecus["0x720"] = 0x0020;             // named by request id, address given
    settings.all_ecus_doip = DoipEcuSource::kEcuConfig;  // and the DoIP ECUs
    bool broadcast = false;
    auto targets = targets_of(kAllQuery, settings, &broadcast);
    EXPECT_TRUE(broadcast);
    ASSERT_EQ(targets.size(), 3u);
    EXPECT_EQ(targets[2].name, "telematics");
    EXPECT_EQ(targets[2].label, "0x1001");
    EXPECT_EQ(targets[2].doip.logical_address, 0x1001);
    EXPECT_EQ(targets_of(kEngineQuery, settings, &broadcast).size(), 1u);  // one ECU: none added
    EXPECT_EQ(targets[0].name, "engine");
    EXPECT_EQ(targets[0].transport, Transport::kDoip);
    EXPECT_EQ(targets[0].doip.logical_address, 0x7E0);
    EXPECT_EQ(targets[0].doip.tester_address, 0x0E81);
    EXPECT_EQ(targets[0].doip.port, 13500);
    EXPECT_EQ(targets[1].name, "gateway");
    EXPECT_EQ(targets[1].doip.logical_address, 0x20);
    EXPECT_NE(targets[0].key(), targets[1].key());
}

TEST(QueryTargetsTest, anUnroutedIocEcuCannotBeReachedAndSaysHowToFixIt) {
    AgentSettings settings;
    settings.learn_ecus(kEcus);
    bool broadcast = false;
    auto targets = targets_of(kAllQuery, settings, &broadcast);
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(targets[0].transport, Transport::kCan);
    EXPECT_EQ(targets[1].transport, Transport::kNone);
    EXPECT_EQ(targets[1].error,
              "an IOC ECU is reached only through a gateway: route gateway in the agent "
              "settings' \"gateway\"");
}

// A CAN FD ECU has no block in the library's queries: the settings give it,
// a query for all ECUs adds it, a "canfd" query finds it by target address.
// Extended addressing is chosen per ECU name.
TEST(QueryTargetsTest, canFdAndExtendedAddressingComeFromTheSettings) {
    AgentSettings settings = AgentSettings::from_json(R"({
      "can": {"extended-addressing": {"engine": {"target": "0x18", "answer": "0xF1"}, "0x720": "0x20"}},
      "canfd": {"adas": {"ifname": "can1", "phy-req-id": "0x7E4", "phy-resp-id": "0x7EC",
                         "st-min": "0x01", "bsize": "0x02", "data-length": 32}}})");
    settings.learn_ecus(R"({"configs":[{"type":"CANFD","targetAddress":"0x7E4","name":"adas"},
      {"type":"CAN","targetAddress":"0x7E0","name":"engine","can":{"phy-req-id":"0x7E0"}}]})");
    bool broadcast = false;
    auto targets = targets_of(kAllQuery, settings, &broadcast);
    ASSERT_EQ(targets.size(), 3u);
    EXPECT_EQ(targets[0].can.extended_address->target, 0x18);
    EXPECT_EQ(targets[0].can.extended_address->answer, 0xF1);
    EXPECT_FALSE(targets[1].can.extended_address);  // an IOC ECU, no gateway
    const EcuTarget &adas = targets[2];
    EXPECT_EQ(adas.name, "adas");
    EXPECT_EQ(adas.label, "0x7E4");
    EXPECT_EQ(adas.transport, Transport::kCan);
    EXPECT_EQ(adas.can.ifname, "can1");
    EXPECT_EQ(adas.can.response_id, 0x7ECu);
    EXPECT_EQ(adas.can.st_min, 0x01);
    EXPECT_EQ(adas.can.fd_data_length, 32);
    EXPECT_FALSE(adas.can.bit_rate_switch);
    EXPECT_NE(adas.can.link_key(), targets[0].can.link_key());
    auto one =
        targets_of(R"({"mode":"CANFD","targetAddress":"0x7E4","canfd":{}})", settings, &broadcast);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].can.link_key(), adas.can.link_key());
    auto unknown =
        targets_of(R"({"mode":"CANFD","targetAddress":"0x7E9","canfd":{}})", settings, &broadcast);
    EXPECT_EQ(unknown[0].error, "CANFD ECU 0x7E9 has no entry in the agent settings' \"canfd\"");
}

TEST(QueryTargetsTest, aBadBlockValueIsNamed) {
    const struct {
        const char *body;
        const char *error;  // "": reachable
    } cases[] = {
        {R"({"mode":"DOIP","targetAddress":"0x1001","doip":{"sa":"0x0E80","ta":"0x1001x","gw-ip":"127.0.0.1"}})",
         "the transport block's \"ta\" (0x1001x) is not a valid value"},
        // st-min: 0x00-0x7F ms, 0xF1-0xF9 hundreds of microseconds, the rest reserved.
        {R"({"mode":"CAN","targetAddress":"0x7E0","can":{"ifname":"can0","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0x80","bsize":"0"}})",
         "the transport block's \"st-min\" (0x80) is reserved: use 0x00-0x7F (ms) or 0xF1-0xF9 "
         "(100-900 us)"},
        {R"({"mode":"CAN","targetAddress":"0x7E0","can":{"ifname":"can0","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0xFA","bsize":"0"}})",
         "the transport block's \"st-min\" (0xFA) is reserved: use 0x00-0x7F (ms) or 0xF1-0xF9 "
         "(100-900 us)"},
        {R"({"mode":"CAN","targetAddress":"0x7E0","can":{"ifname":"can0","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0xF9","bsize":"0"}})",
         ""},
    };
    for (const auto &row : cases) {
        bool broadcast = false;
        auto targets = targets_of(row.body, AgentSettings{}, &broadcast);
        ASSERT_EQ(targets.size(), 1u);
        EXPECT_EQ(targets[0].error, row.error) << row.body;
        EXPECT_EQ(targets[0].transport == Transport::kNone, *row.error != '\0') << row.body;
    }
}

TEST(AgentSettingsTest, theFileSetsEveryPart) {
    AgentSettings settings = AgentSettings::from_json(R"({
      "doip": {"port": 13401, "allow-remote": true, "addresses": {"192.168.10.1": "127.0.0.1"},
               "ack-timeout-ms": 500, "processing-time-ms": 3000, "version": "0x03",
               "tls": {"ca": "/dev/null", "port": 3497},
               "gateways": {"10.0.0.1": {"activation-type": "0xE0", "tls": {"use": "always"}}}},
      "uds": {"p2-ms": 200, "p2-star-ms": 3000, "deadline-ms": 7000, "busy-retries": 5},
      "can": {"padding": "0x55", "require-padding": true, "29-bit-ids": ["engine"]},
      "gateway": {"gw-ip": "127.0.0.1", "port": 13402, "sa": "0x0E81",
                  "ecus": {"engine": null, "gateway": "0x20"}},
      "key-algorithms": {"0x01": "builtin", "0x03": "/opt/keys.so"},
      "all-ecus": {"doip": "ecu-config"},
      "power-mode": {"timeout-ms": 250},
      "sessions": {"keep-ms": 90000, "interval-ms": 1500, "tester-present": "3E 00"}})");
    EXPECT_EQ(settings.doip_port, 13401);
    EXPECT_TRUE(settings.allow_remote_gateways);
    EXPECT_EQ(settings.gateway_addresses.at("192.168.10.1"), "127.0.0.1");
    EXPECT_EQ(settings.ack_timeout, Millis(500));
    EXPECT_EQ(settings.processing_time, Millis(3000));
    const DoipGatewayPolicy &other = settings.doip_policy("127.0.0.1");
    EXPECT_EQ(other.version, 0x03);
    EXPECT_EQ(other.tls.use, TlsUse::kWhenRequired);  // a CA allows TLS where required
    const DoipGatewayPolicy &own = settings.doip_policy("10.0.0.1");
    EXPECT_EQ(own.activation_type, 0xE0);
    EXPECT_EQ(own.version, 0x03);  // the rest from "doip"
    EXPECT_EQ(own.tls.use, TlsUse::kAlways);
    EXPECT_EQ(own.tls.port, 3497);
    EXPECT_EQ(own.tls.files.ca, "/dev/null");
    EXPECT_EQ(settings.timing.p2, Millis(200));
    EXPECT_EQ(settings.timing.p2_star, Millis(3000));
    EXPECT_EQ(settings.timing.overall, Millis(7000));
    EXPECT_EQ(settings.timing.busy_retries, 5);
    EXPECT_EQ(settings.can.padding, 0x55);
    EXPECT_TRUE(settings.can.require_padding);
    EXPECT_EQ(settings.can.extended_ids, std::set<std::string>{"engine"});
    EXPECT_FALSE(AgentSettings::from_json(R"({"can": {"padding": false}})").can.padding);
    EXPECT_EQ(AgentSettings::from_json("{}").can.padding, 0xCC);
    EXPECT_TRUE(settings.gateway.enabled);
    EXPECT_EQ(settings.gateway.port, 13402);
    EXPECT_EQ(settings.gateway.tester_address, 0x0E81);
    EXPECT_EQ(settings.gateway.ecus.at("engine"), -1);
    EXPECT_EQ(settings.gateway.ecus.at("gateway"), 0x20);
    EXPECT_EQ(settings.key_algorithms.at(0x03), "/opt/keys.so");
    EXPECT_EQ(settings.all_ecus_doip, DoipEcuSource::kEcuConfig);
    EXPECT_TRUE(settings.power_mode.enabled);
    EXPECT_EQ(settings.power_mode.timeout, Millis(250));
    EXPECT_EQ(settings.sessions.keep, Millis(90000));
    EXPECT_EQ(settings.sessions.interval, Millis(1500));
    EXPECT_EQ(settings.sessions.tester_present, (Bytes{0x3E, 0x00}));
    EXPECT_EQ(AgentSettings::from_json("{}").sessions.keep, Millis(0));  // not kept unless asked
    EXPECT_EQ(AgentSettings::from_json(R"({"sessions": {}})").sessions.keep, Millis(30000));
}

TEST(AgentSettingsTest, theExampleFileIsValid) {
    AgentSettings settings =
        AgentSettings::from_json(uoztest::file_text(UOZ_EXAMPLES "/agent-settings.json"));
    EXPECT_FALSE(settings.allow_remote_gateways);
    EXPECT_EQ(settings.gateway.ecus.size(), 4u);
    EXPECT_EQ(settings.gateway.ecus.at("gateway"), 0x20);
}

TEST(AgentSettingsTest, mistakesAreRefusedWithTheMemberNamed) {
    uoztest::expect_refusals(UOZ_AGENT_GOLDEN "/bad_settings.txt", "settings",
                             AgentSettings::from_json);
}

}  // namespace
}  // namespace uozagent
