// The netlink readers on hand-built bytes laid out as the kernel sends them. The nl80211 case
// stands in for a radio: this machine cannot load mac80211_hwsim (no modprobe, no kernel modules).

#include "net/linux/netlink_messages.h"
#include "net/linux/netlink_monitor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <linux/genetlink.h>
#include <linux/nl80211.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

namespace nl = velocast::netlink;

namespace {

using ByteVector = std::vector<std::uint8_t>;

// One message: netlink header, family header, attributes, each padded to 4 bytes.
class Message {
public:
    explicit Message(std::uint16_t type) : type_(type), bytes_(NLMSG_HDRLEN) {}
    template <typename T>
    Message &family(const T &header) { return raw(&header, sizeof header); }
    Message &attr(std::uint16_t type, const void *data, std::size_t size)
    {
        const nlattr a{std::uint16_t(NLA_HDRLEN + size), type};
        return raw(&a, sizeof a).raw(data, size);
    }
    Message &u32(std::uint16_t type, std::uint32_t value) { return attr(type, &value, sizeof value); }
    Message &str(std::uint16_t type, const char *s) { return attr(type, s, std::strlen(s) + 1); }
    Message &raw(const void *data, std::size_t size)
    {
        bytes_.insert(bytes_.end(), static_cast<const std::uint8_t *>(data), static_cast<const std::uint8_t *>(data) + size);
        bytes_.resize(NLMSG_ALIGN(bytes_.size()));
        return *this;
    }
    // nlmsg_len is the size built unless a (wrong) one is given.
    ByteVector bytes(std::uint32_t claimedLength = 0) const
    {
        ByteVector out = bytes_;
        const nlmsghdr h{claimedLength ? claimedLength : std::uint32_t(out.size()), type_, 0, 1, 0};
        std::memcpy(out.data(), &h, sizeof h);
        return out;
    }

private:
    std::uint16_t type_;
    ByteVector bytes_;
};

nl::Bytes span(const ByteVector &v) { return {v.data(), v.size()}; }

// The first n bytes of a message, with nlmsg_len saying so.
ByteVector cut(ByteVector message, std::uint32_t n)
{
    message.resize(n);
    std::memcpy(message.data(), &n, sizeof n);
    return message;
}

rtmsg route(std::uint8_t dstLen = 0, std::uint8_t type = RTN_UNICAST, unsigned flags = 0)
{
    return rtmsg{AF_INET, dstLen, 0, 0, RT_TABLE_MAIN, RTPROT_BOOT, RT_SCOPE_UNIVERSE, type, flags};
}

} // namespace

TEST(NetlinkMessages, LinkLengthsAreCheckedBeforeUse)
{
    const ifinfomsg info{AF_UNSPEC, 0, 0, 2, IFF_UP | IFF_RUNNING, 0};
    // A name without its NUL ends with its attribute, not in the next one.
    const Message good = Message(RTM_NEWLINK).family(info).attr(IFLA_IFNAME, "eth0", 4).str(IFLA_QDISC, "noqueue");
    const auto link = nl::parseLink(span(good.bytes()));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->name, "eth0");
    EXPECT_EQ(link->flags, unsigned(IFF_UP | IFF_RUNNING));

    const nlattr shorterThanItsHeader{2, IFLA_MTU}, pastTheEnd{64, IFLA_MTU};
    const ByteVector goodBytes = good.bytes();
    const std::pair<const char *, ByteVector> broken[] = {
        {"attribute shorter than its header", Message(good).raw(&shorterThanItsHeader, 4).bytes()},
        {"attribute past the end", Message(good).raw(&pastTheEnd, 4).u32(IFLA_MTU, 1).bytes()},
        {"nlmsg_len past the buffer", good.bytes(std::uint32_t(goodBytes.size() + 4))},
        {"family header cut short", cut(goodBytes, NLMSG_HDRLEN + 8)},
        {"no name", Message(RTM_NEWLINK).family(info).u32(IFLA_MTU, 1500).bytes()},
    };
    for (const auto &[what, bytes] : broken) EXPECT_FALSE(nl::parseLink(span(bytes))) << what;
}

TEST(NetlinkMessages, OnlyLiveIPv4DefaultRoutesOfTheMainTable)
{
    const rtnexthop hops[] = {{8, RTNH_F_DEAD, 0, 2}, {8, 0, 0, 7}, {8, RTNH_F_LINKDOWN, 0, 8}, {8, 0, 0, 9}};
    auto multipath = nl::parseDefaultRoute(
        span(Message(RTM_NEWROUTE).family(route()).u32(RTA_PRIORITY, 600).attr(RTA_MULTIPATH, hops, sizeof hops).bytes()));
    ASSERT_TRUE(multipath);
    EXPECT_EQ(multipath->interfaces, (std::vector<int>{7, 9}));
    EXPECT_EQ(multipath->metric, 600u);

    const rtnexthop overlong{200, 0, 0, 3};
    const std::pair<const char *, ByteVector> notDefault[] = {
        {"subnet route", Message(RTM_NEWROUTE).family(route(24)).u32(RTA_OIF, 4).bytes()},
        {"RTA_TABLE names another table", Message(RTM_NEWROUTE).family(route()).u32(RTA_TABLE, 100).u32(RTA_OIF, 4).bytes()},
        {"unreachable", Message(RTM_NEWROUTE).family(route(0, RTN_UNREACHABLE)).bytes()},
        {"no carrier", Message(RTM_NEWROUTE).family(route(0, RTN_UNICAST, RTNH_F_LINKDOWN)).u32(RTA_OIF, 4).bytes()},
        {"nexthop past its attribute", Message(RTM_NEWROUTE).family(route()).attr(RTA_MULTIPATH, &overlong, 8).bytes()},
    };
    for (const auto &[what, bytes] : notDefault) EXPECT_FALSE(nl::parseDefaultRoute(span(bytes))) << what;
}

TEST(NetlinkMessages, Nl80211InterfaceReply)
{
    constexpr std::uint16_t family = 0x1c; // as handed out by the generic netlink controller
    const genlmsghdr genl{NL80211_CMD_NEW_INTERFACE, 0, 0};
    const Message base = Message(family).family(genl).u32(NL80211_ATTR_IFINDEX, 3).str(NL80211_ATTR_IFNAME, "wlp2s0");
    auto wifi = nl::parseWifiInterface(span(Message(base).attr(NL80211_ATTR_SSID, "Lab-5G", 6).bytes()), family);
    ASSERT_TRUE(wifi);
    EXPECT_EQ(wifi->name, "wlp2s0");
    EXPECT_EQ(wifi->ssid, QByteArray("Lab-5G"));
    wifi = nl::parseWifiInterface(span(base.bytes()), family);
    ASSERT_TRUE(wifi);
    EXPECT_FALSE(wifi->ssid) << "not associated";

    const std::string ssid33(33, 'x');
    const std::pair<const char *, ByteVector> rejected[] = {
        {"SSID over 32 bytes", Message(base).attr(NL80211_ATTR_SSID, ssid33.data(), 33).bytes()},
        {"another family", Message(family + 1).family(genl).u32(NL80211_ATTR_IFINDEX, 3).str(NL80211_ATTR_IFNAME, "w").bytes()},
        {"generic header cut short", cut(base.bytes(), NLMSG_HDRLEN + 2)},
    };
    for (const auto &[what, bytes] : rejected) EXPECT_FALSE(nl::parseWifiInterface(span(bytes), family)) << what;
}

TEST(RouteDecision, PrimaryInterface)
{
    constexpr unsigned up = IFF_UP | IFF_RUNNING;
    const std::vector<nl::LinkMessage> links = {
        {1, up | IFF_LOOPBACK, "lo"}, {2, up, "eth0"}, {3, up, "wlan0"}, {4, IFF_UP, "eth1"}, {5, up, "tun0"}};
    const nl::AddressMessage lo{1, 0x0100007f}, eth0{2, 1}, wlan0{3, 2}, eth1{4, 3}, tun0{5, 4};
    struct Case {
        const char *what;
        std::vector<nl::AddressMessage> addresses;
        std::vector<nl::DefaultRouteMessage> routes;
        QString primary; // "" = no way out
    } cases[] = {
        {"loopback, and a link without carrier", {lo, eth1}, {}, ""},
        {"lowest index with an address", {lo, tun0, wlan0}, {}, "wlan0"},
        {"lowest metric, then first route", {eth0}, {{{2}, 600}, {{5}, 100}, {{3}, 100}}, "tun0"},
        {"route over a link without carrier", {tun0}, {{{4}, 0}}, "tun0"},
        {"multipath: first usable nexthop; no address needed", {}, {{{4, 3, 2}, 0}}, "wlan0"},
    };
    for (const auto &c : cases) {
        const auto state = velocast::decideRouteState(links, c.addresses, c.routes);
        EXPECT_EQ(state.reachable, !c.primary.isEmpty()) << c.what;
        EXPECT_EQ(state.primaryInterface, c.primary) << c.what;
    }
}
