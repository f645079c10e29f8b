// The rendered LAN isolation ruleset, loaded into the simulated Mac, does
// what it says: hosts of the local network cannot reach each other, while
// the gateway, resolvers, DHCP, neighbour discovery and the internet can.

#include <gtest/gtest.h>

#include "Support/HardKillFixture.h"

namespace orven {
namespace {

using testing::HardKillFixture;

struct PacketCase {
    const char* name;
    std::vector<std::string> packet;  // macsim packet arguments
    bool passes;
};
void PrintTo(const PacketCase& c, std::ostream* os) { *os << c.name; }

class LANIsolationRuleset : public HardKillFixture, public ::testing::WithParamInterface<PacketCase> {
protected:
    void SetUp() override
    {
        const PFRuleBuilder::LANIsolationParams params{"en0",
                                                       "192.168.1.1",
                                                       "192.168.1.0/24",
                                                       {"192.168.1.53"},
                                                       "fe80::1%en0",
                                                       {"2001:db8:1::1234/64"},
                                                       {"2001:db8:1::53"}};
        PFRuleBuilder::validate(params);
        ASSERT_FALSE(HelperService::pfctlLoadEnableAndFlush(context(), PFRuleBuilder::renderFullRuleset(params), params));
    }
};

TEST_P(LANIsolationRuleset, DecidesEachPacketAsItSays)
{
    const auto verdict = daemon.mac.macsim("packet", GetParam().packet);
    ASSERT_TRUE(verdict.code == 0 || verdict.code == 1) << verdict.err;
    EXPECT_EQ(verdict.code == 0, GetParam().passes) << verdict.out;
}

INSTANTIATE_TEST_SUITE_P(
    Packets, LANIsolationRuleset,
    ::testing::Values(
        PacketCase{"LANHostToLANHost", {"out", "en0", "tcp", "192.168.1.23", "192.168.1.40", "--dport", "22"}, false},
        PacketCase{"LANHostFromLANHost", {"in", "en0", "tcp", "192.168.1.40", "192.168.1.23", "--dport", "445"}, false},
        PacketCase{"LANUDPBetweenHosts", {"out", "en0", "udp", "192.168.1.23", "192.168.1.77", "--dport", "5353"}, false},
        PacketCase{"ToTheGateway", {"out", "en0", "tcp", "192.168.1.23", "192.168.1.1", "--dport", "80"}, true},
        PacketCase{"FromTheGateway", {"in", "en0", "udp", "192.168.1.1", "192.168.1.23", "--sport", "53"}, true},
        PacketCase{"ToTheResolver", {"out", "en0", "udp", "192.168.1.23", "192.168.1.53", "--dport", "53"}, true},
        PacketCase{"FromTheResolver", {"in", "en0", "udp", "192.168.1.53", "192.168.1.23", "--sport", "53"}, true},
        PacketCase{"DHCPRequest",
                   {"out", "en0", "udp", "192.168.1.23", "192.168.1.255", "--sport", "68", "--dport", "67"}, true},
        PacketCase{"DHCPAnswer",
                   {"in", "en0", "udp", "192.168.1.1", "192.168.1.23", "--sport", "67", "--dport", "68"}, true},
        PacketCase{"ToTheInternet", {"out", "en0", "tcp", "192.168.1.23", "1.1.1.1", "--dport", "443"}, true},
        PacketCase{"V6LANHostToLANHost", {"out", "en0", "tcp", "2001:db8:1::23", "2001:db8:1::40", "--dport", "22"},
                   false},
        PacketCase{"V6LinkLocalPeers", {"out", "en0", "udp", "fe80::23", "fe80::40", "--dport", "5353"}, false},
        PacketCase{"V6ToTheGateway", {"out", "en0", "tcp", "fe80::23", "fe80::1", "--dport", "53"}, true},
        PacketCase{"V6ToTheResolver", {"out", "en0", "udp", "2001:db8:1::23", "2001:db8:1::53", "--dport", "53"}, true},
        PacketCase{"V6RouterAdvertisement", {"in", "en0", "icmp6", "fe80::1", "ff02::1", "--icmp-type", "134"}, true},
        PacketCase{"V6NeighbourSolicitation", {"out", "en0", "icmp6", "fe80::23", "fe80::40", "--icmp-type", "135"},
                   true},
        PacketCase{"V6EchoToALANHost", {"out", "en0", "icmp6", "2001:db8:1::23", "2001:db8:1::40", "--icmp-type", "128"},
                   false},
        PacketCase{"DHCPv6", {"out", "en0", "udp", "fe80::23", "ff02::1:2", "--sport", "546", "--dport", "547"}, true},
        PacketCase{"V6ToTheInternet",
                   {"out", "en0", "tcp", "2001:db8:1::23", "2606:4700:4700::1111", "--dport", "443"}, true}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace orven
