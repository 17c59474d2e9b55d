// The netlink readers on hand-built bytes, laid out the way the kernel sends them. The nl80211
// cases stand in for a real radio: this machine cannot load mac80211_hwsim (no modprobe, no
// kernel modules), so the Wi-Fi path is exercised on bytes here and with a simulated radio in
// the namespace tests.

#include "net/linux/netlink_messages.h"
#include "net/linux/netlink_monitor.h"
#include "net/mac_net_check.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <linux/genetlink.h>
#include <linux/if_addr.h>
#include <linux/nl80211.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>

namespace nl = velocast::netlink;

namespace {

using ByteVector = std::vector<std::uint8_t>;

// One netlink message: header, family header, attributes, each padded to 4 bytes.
class Message {
public:
    explicit Message(std::uint16_t type) : type_(type) { bytes_.resize(NLMSG_HDRLEN); }

    template <typename T>
    Message &family(const T &header) { return raw(&header, sizeof header).pad(); }
    Message &attr(std::uint16_t type, const void *data, std::size_t size)
    {
        const nlattr a{std::uint16_t(NLA_HDRLEN + size), type};
        return raw(&a, sizeof a).raw(data, size).pad();
    }
    Message &u32(std::uint16_t type, std::uint32_t value) { return attr(type, &value, sizeof value); }
    Message &str(std::uint16_t type, const char *s) { return attr(type, s, std::strlen(s) + 1); }
    Message &raw(const void *data, std::size_t size)
    {
        const auto *p = static_cast<const std::uint8_t *>(data);
        bytes_.insert(bytes_.end(), p, p + size);
        return *this;
    }
    Message &pad()
    {
        bytes_.resize(NLMSG_ALIGN(bytes_.size()));
        return *this;
    }
    // nlmsg_len = the bytes built, unless told otherwise.
    ByteVector bytes(std::optional<std::uint32_t> claimedLength = std::nullopt) const
    {
        ByteVector out = bytes_;
        const nlmsghdr h{claimedLength.value_or(std::uint32_t(out.size())), type_, 0, 1, 0};
        std::memcpy(out.data(), &h, sizeof h);
        return out;
    }

private:
    std::uint16_t type_;
    ByteVector bytes_;
};

nl::Bytes span(const ByteVector &v) { return nl::Bytes(v.data(), v.size()); }

ifinfomsg linkHeader(int index, unsigned flags)
{
    ifinfomsg h{};
    h.ifi_family = AF_UNSPEC;
    h.ifi_index = index;
    h.ifi_flags = flags;
    return h;
}

rtmsg routeHeader(std::uint8_t dstLen = 0, std::uint8_t table = RT_TABLE_MAIN, std::uint8_t type = RTN_UNICAST)
{
    rtmsg h{};
    h.rtm_family = AF_INET;
    h.rtm_dst_len = dstLen;
    h.rtm_table = table;
    h.rtm_type = type;
    return h;
}

std::uint32_t ipv4(const char *dotted)
{
    in_addr a{};
    inet_pton(AF_INET, dotted, &a);
    return a.s_addr;
}

constexpr std::uint16_t kNl80211 = 0x1c; // the family id the controller handed out

Message wifiMessage(std::uint8_t cmd = NL80211_CMD_NEW_INTERFACE)
{
    const genlmsghdr genl{cmd, 0, 0};
    return Message(kNl80211).family(genl);
}

} // namespace

TEST(NetlinkMessages, LinkNameAndFlags)
{
    const auto link = nl::parseLink(span(Message(RTM_NEWLINK)
                                             .family(linkHeader(3, IFF_UP | IFF_RUNNING))
                                             .u32(IFLA_MTU, 1500)
                                             .str(IFLA_IFNAME, "enp3s0")
                                             .bytes()));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->index, 3);
    EXPECT_EQ(link->flags, unsigned(IFF_UP | IFF_RUNNING));
    EXPECT_EQ(link->name, "enp3s0");

    // A name without its terminating NUL ends with its attribute, not in the next one.
    const auto unterminated = nl::parseLink(span(Message(RTM_NEWLINK)
                                                     .family(linkHeader(4, 0))
                                                     .attr(IFLA_IFNAME, "wlan0", 5)
                                                     .str(IFLA_QDISC, "noqueue")
                                                     .bytes()));
    ASSERT_TRUE(unterminated);
    EXPECT_EQ(unterminated->name, "wlan0");
}

TEST(NetlinkMessages, BadLengthsRejectTheWholeMessage)
{
    const nlattr tooShort{2, IFLA_MTU};  // shorter than its own header
    const nlattr tooLong{64, IFLA_MTU};  // runs past the end of the message
    const Message good = Message(RTM_NEWLINK).family(linkHeader(2, IFF_UP)).str(IFLA_IFNAME, "eth0");
    const ByteVector goodBytes = good.bytes();

    struct Case {
        const char *what;
        ByteVector bytes;
    } cases[] = {
        {"attribute shorter than its header", Message(good).raw(&tooShort, sizeof tooShort).bytes()},
        {"attribute past the end", Message(good).raw(&tooLong, sizeof tooLong).u32(IFLA_MTU, 1).bytes()},
        {"nlmsg_len past the buffer", good.bytes(std::uint32_t(goodBytes.size() + 4))},
        {"nlmsg_len shorter than the buffer", good.bytes(std::uint32_t(goodBytes.size() - 4))},
        {"family header cut short", ByteVector(goodBytes.begin(), goodBytes.begin() + NLMSG_HDRLEN + 8)},
        {"header cut short", ByteVector(goodBytes.begin(), goodBytes.begin() + 10)},
        {"no name", Message(RTM_NEWLINK).family(linkHeader(2, IFF_UP)).u32(IFLA_MTU, 1500).bytes()},
        {"wrong message type", Message(RTM_NEWADDR).family(linkHeader(2, IFF_UP)).str(IFLA_IFNAME, "eth0").bytes()},
    };
    ASSERT_TRUE(nl::parseLink(span(goodBytes)));
    for (const auto &c : cases) {
        ByteVector exact = c.bytes; // a buffer of exactly this size, so ASan sees any overrun
        EXPECT_FALSE(nl::parseLink(span(exact))) << c.what;
    }
}

TEST(NetlinkMessages, DatagramWithSeveralMessages)
{
    ByteVector datagram = Message(RTM_NEWLINK).family(linkHeader(1, 0)).str(IFLA_IFNAME, "lo").bytes();
    const ByteVector second = Message(RTM_NEWLINK).family(linkHeader(2, 0)).str(IFLA_IFNAME, "eth0").bytes();
    datagram.insert(datagram.end(), second.begin(), second.end());
    const ByteVector third = Message(RTM_NEWLINK).family(linkHeader(3, 0)).str(IFLA_IFNAME, "eth1").bytes();
    datagram.insert(datagram.end(), third.begin(), third.begin() + 20); // cut off

    QStringList names;
    const bool wellFormed = nl::forEachMessage(span(datagram), [&](const nlmsghdr &, nl::Bytes message) {
        if (auto link = nl::parseLink(message)) names << link->name;
        return true;
    });
    EXPECT_FALSE(wellFormed);
    EXPECT_EQ(names, QStringList({"lo", "eth0"}));
}

TEST(NetlinkMessages, IPv4Address)
{
    ifaddrmsg h{};
    h.ifa_family = AF_INET;
    h.ifa_prefixlen = 24;
    h.ifa_index = 5;

    // Point-to-point: IFA_ADDRESS is the peer, IFA_LOCAL our own.
    auto address = nl::parseIPv4Address(span(
        Message(RTM_NEWADDR).family(h).u32(IFA_ADDRESS, ipv4("10.0.0.1")).u32(IFA_LOCAL, ipv4("10.0.0.2")).bytes()));
    ASSERT_TRUE(address);
    EXPECT_EQ(address->index, 5);
    EXPECT_EQ(address->address, ipv4("10.0.0.2"));

    address = nl::parseIPv4Address(span(Message(RTM_NEWADDR).family(h).u32(IFA_ADDRESS, ipv4("10.0.0.7")).bytes()));
    ASSERT_TRUE(address);
    EXPECT_EQ(address->address, ipv4("10.0.0.7"));

    const std::uint8_t sixteen[16] = {};
    EXPECT_FALSE(nl::parseIPv4Address(span(Message(RTM_NEWADDR).family(h).attr(IFA_LOCAL, sixteen, 16).bytes())));
    h.ifa_family = AF_INET6;
    EXPECT_FALSE(nl::parseIPv4Address(span(Message(RTM_NEWADDR).family(h).u32(IFA_LOCAL, 1).bytes())));
}

TEST(NetlinkMessages, DefaultRoutes)
{
    auto route = nl::parseDefaultRoute(span(Message(RTM_NEWROUTE)
                                                .family(routeHeader())
                                                .u32(RTA_TABLE, RT_TABLE_MAIN)
                                                .u32(RTA_PRIORITY, 600)
                                                .u32(RTA_GATEWAY, ipv4("10.0.0.1"))
                                                .u32(RTA_OIF, 4)
                                                .bytes()));
    ASSERT_TRUE(route);
    EXPECT_EQ(route->interfaces, std::vector<int>{4});
    EXPECT_EQ(route->metric, 600u);

    // Multipath: nexthops that are dead or without carrier do not count.
    auto nexthop = [](std::uint8_t flags, int ifindex) { return rtnexthop{sizeof(rtnexthop), flags, 0, ifindex}; };
    const rtnexthop hops[] = {nexthop(RTNH_F_DEAD, 2), nexthop(0, 7), nexthop(RTNH_F_LINKDOWN, 8), nexthop(0, 9)};
    route = nl::parseDefaultRoute(span(Message(RTM_NEWROUTE).family(routeHeader()).attr(RTA_MULTIPATH, hops, sizeof hops).bytes()));
    ASSERT_TRUE(route);
    EXPECT_EQ(route->interfaces, (std::vector<int>{7, 9}));

    rtnexthop overlong = nexthop(0, 3);
    overlong.rtnh_len = 200;
    rtmsg linkdown = routeHeader();
    linkdown.rtm_flags = RTNH_F_LINKDOWN;
    rtmsg ipv6 = routeHeader();
    ipv6.rtm_family = AF_INET6;
    struct Case {
        const char *what;
        ByteVector bytes;
    } notDefault[] = {
        {"a subnet route", Message(RTM_NEWROUTE).family(routeHeader(24)).u32(RTA_OIF, 4).bytes()},
        {"another table (RTA_TABLE wins over rtm_table)",
         Message(RTM_NEWROUTE).family(routeHeader()).u32(RTA_TABLE, 100).u32(RTA_OIF, 4).bytes()},
        {"the local table", Message(RTM_NEWROUTE).family(routeHeader(0, RT_TABLE_LOCAL)).u32(RTA_OIF, 4).bytes()},
        {"unreachable", Message(RTM_NEWROUTE).family(routeHeader(0, RT_TABLE_MAIN, RTN_UNREACHABLE)).bytes()},
        {"no carrier", Message(RTM_NEWROUTE).family(linkdown).u32(RTA_OIF, 4).bytes()},
        {"IPv6", Message(RTM_NEWROUTE).family(ipv6).u32(RTA_OIF, 4).bytes()},
        {"nexthop past its attribute",
         Message(RTM_NEWROUTE).family(routeHeader()).attr(RTA_MULTIPATH, &overlong, sizeof overlong).bytes()},
        {"oif of the wrong size", Message(RTM_NEWROUTE).family(routeHeader()).attr(RTA_OIF, "\x04", 1).bytes()},
    };
    for (const auto &c : notDefault) EXPECT_FALSE(nl::parseDefaultRoute(span(c.bytes))) << c.what;
}

TEST(NetlinkMessages, Nl80211InterfaceReply)
{
    const char ssid[] = "Lab-5G";
    auto wifi = nl::parseWifiInterface(span(wifiMessage()
                                                .u32(NL80211_ATTR_IFINDEX, 3)
                                                .str(NL80211_ATTR_IFNAME, "wlp2s0")
                                                .u32(NL80211_ATTR_IFTYPE, NL80211_IFTYPE_STATION)
                                                .attr(NL80211_ATTR_SSID, ssid, 6) // raw bytes, no NUL
                                                .bytes()),
                                       kNl80211);
    ASSERT_TRUE(wifi);
    EXPECT_EQ(wifi->index, 3);
    EXPECT_EQ(wifi->name, "wlp2s0");
    ASSERT_TRUE(wifi->ssid);
    EXPECT_EQ(*wifi->ssid, QByteArray("Lab-5G"));

    // Not associated: no SSID attribute.
    wifi = nl::parseWifiInterface(
        span(wifiMessage().u32(NL80211_ATTR_IFINDEX, 3).str(NL80211_ATTR_IFNAME, "wlp2s0").bytes()), kNl80211);
    ASSERT_TRUE(wifi);
    EXPECT_FALSE(wifi->ssid);

    const std::string tooLong(33, 'x');
    const genlmsghdr genl{NL80211_CMD_NEW_INTERFACE, 0, 0};
    struct Case {
        const char *what;
        ByteVector bytes;
    } rejected[] = {
        {"SSID longer than 32 bytes",
         wifiMessage().u32(NL80211_ATTR_IFINDEX, 3).str(NL80211_ATTR_IFNAME, "w").attr(NL80211_ATTR_SSID, tooLong.data(), 33).bytes()},
        {"no interface index", wifiMessage().str(NL80211_ATTR_IFNAME, "wlan0").bytes()},
        {"another command",
         wifiMessage(NL80211_CMD_NEW_STATION).u32(NL80211_ATTR_IFINDEX, 3).str(NL80211_ATTR_IFNAME, "wlan0").bytes()},
        {"another family", Message(kNl80211 + 1).family(genl).u32(NL80211_ATTR_IFINDEX, 3).str(NL80211_ATTR_IFNAME, "w").bytes()},
        {"generic header cut short", Message(kNl80211).raw(&genl, 2).bytes()},
    };
    for (const auto &c : rejected) {
        ByteVector exact = c.bytes;
        EXPECT_FALSE(nl::parseWifiInterface(span(exact), kNl80211)) << c.what;
    }
}

TEST(RouteDecision, PrimaryInterface)
{
    constexpr unsigned up = IFF_UP | IFF_RUNNING;
    const std::vector<nl::LinkMessage> links = {
        {1, up | IFF_LOOPBACK, "lo"}, {2, up, "eth0"}, {3, up, "wlan0"}, {4, IFF_UP, "eth1"}, {5, up, "tun0"}};
    const nl::AddressMessage lo{1, ipv4("127.0.0.1")}, eth0{2, ipv4("10.0.0.2")}, wlan0{3, ipv4("10.1.0.2")},
        eth1{4, ipv4("10.2.0.2")}, tun0{5, ipv4("10.3.0.2")};
    struct Case {
        const char *what;
        std::vector<nl::AddressMessage> addresses;
        std::vector<nl::DefaultRouteMessage> routes;
        bool reachable;
        QString primary;
    } cases[] = {
        {"loopback only", {lo}, {}, false, ""},
        {"address on a link without carrier", {lo, eth1}, {}, false, ""},
        {"lowest index with an address", {lo, tun0, wlan0}, {}, true, "wlan0"},
        {"default route beats a lower index", {eth0, wlan0}, {{{3}, 0}}, true, "wlan0"},
        {"lowest metric wins", {eth0, wlan0}, {{{2}, 600}, {{3}, 100}, {{5}, 600}}, true, "wlan0"},
        {"equal metrics: first route", {}, {{{5}, 100}, {{2}, 100}}, true, "tun0"},
        {"route over a link without carrier", {tun0}, {{{4}, 0}}, true, "tun0"},
        {"route over an unknown link", {}, {{{42}, 0}}, false, ""},
        {"multipath: first usable nexthop", {}, {{{4, 5, 2}, 0}}, true, "tun0"},
        {"route without an address", {}, {{{2}, 0}}, true, "eth0"},
    };
    for (const auto &c : cases) {
        const auto state = velocast::decideRouteState(links, c.addresses, c.routes);
        EXPECT_EQ(state.reachable, c.reachable) << c.what;
        EXPECT_EQ(state.primaryInterface, c.primary) << c.what;
    }
}

TEST(MacNetCheck, IPFromSockaddr_in)
{
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = ipv4("192.168.1.5");
    EXPECT_EQ(velocast::MacNetCheck::IPFromSockaddr_in(reinterpret_cast<sockaddr *>(&v4)), "192.168.1.5");
    v4.sin_addr.s_addr = ipv4("255.255.255.255");
    EXPECT_EQ(velocast::MacNetCheck::IPFromSockaddr_in(reinterpret_cast<sockaddr *>(&v4)), "255.255.255.255");

    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    EXPECT_TRUE(velocast::MacNetCheck::IPFromSockaddr_in(reinterpret_cast<sockaddr *>(&v6)).isNull());
    EXPECT_TRUE(velocast::MacNetCheck::IPFromSockaddr_in(nullptr).isNull());
}
