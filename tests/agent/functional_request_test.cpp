// Which CAN ECUs of a query for all ECUs one functional request asks at once.
#include "functional_request.h"

#include <gtest/gtest.h>

namespace uozagent {
namespace {

// engine and gearbox share can0's 0x7DF; body is on can1; adas uses 29-bit
// ids; seats has no usable func-addr; telematics is on DoIP; a second
// engine block is the same ECU again.
const char kAllQuery[] = R"({"mode":"CAN","targetAddress":"-1","can":[
  {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0x00","bsize":"0x00"},
  {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E1","phy-resp-id":"0x7E9","st-min":"0x00","bsize":"0x00"},
  {"ifname":"can1","func-addr":"0x7DF","phy-req-id":"0x7E2","phy-resp-id":"0x7EA","st-min":"0x00","bsize":"0x00"},
  {"ifname":"can0","func-addr":"0x18DB33F1","phy-req-id":"0x18DA10F1","phy-resp-id":"0x18DAF110","st-min":"0x00","bsize":"0x00"},
  {"ifname":"can0","func-addr":"none","phy-req-id":"0x7E4","phy-resp-id":"0x7EC","st-min":"0x00","bsize":"0x00"},
  {"ifname":"can0","func-addr":"0x7DF","phy-req-id":"0x7E0","phy-resp-id":"0x7E8","st-min":"0x00","bsize":"0x00"}],
  "doip":{"sa":"0x0E80","ta":"0x1001","gw-ip":"127.0.0.1"}})";

TEST(FunctionalRequestTest, canEcusAreGroupedByBusFunctionalIdAndIdWidth) {
    JsonPtr body(json_tokener_parse(kAllQuery));
    bool broadcast = false;
    std::vector<EcuTarget> targets = query_targets(body.get(), AgentSettings{}, &broadcast);
    ASSERT_EQ(targets.size(), 7u);
    std::vector<std::string> groups;
    for (const FunctionalGroup &group : functional_groups(targets, {0x19, 0x02, 0xFF})) {
        std::string text =
            group.address.ifname + " " + std::to_string(*group.address.functional_id);
        for (size_t member : group.members)
            text += " " + targets[member].label;
        groups.push_back(text);
    }
    EXPECT_EQ(groups, (std::vector<std::string>{"can0 2015 0x7E0 0x7E1", "can1 2015 0x7E2",
                                                "can0 417018865 0x18DA10F1"}));
    // Seven bytes fit a single frame; eight go to each ECU alone.
    EXPECT_EQ(functional_groups(targets, Bytes(7, 0x22)).size(), 3u);
    EXPECT_TRUE(functional_groups(targets, Bytes(8, 0x22)).empty());
}

}  // namespace
}  // namespace uozagent
