#include "net/linux/netlink_messages.h"

#include <cstring>

#include <linux/genetlink.h>
#include <linux/if_addr.h>
#include <linux/nl80211.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace velocast::netlink {

namespace {

constexpr std::size_t kMaxSsidLength = 32; // IEEE 802.11

// Copies a fixed-size structure out of the buffer (the buffer need not be aligned for it).
template <typename T>
bool readAt(Bytes bytes, std::size_t offset, T &out)
{
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
    std::memcpy(&out, bytes.data() + offset, sizeof(T));
    return true;
}

bool readU32(Bytes payload, std::uint32_t &out)
{
    if (payload.size() != sizeof(out)) return false;
    std::memcpy(&out, payload.data(), sizeof(out));
    return true;
}

// A string attribute: up to its first NUL, never past its payload.
QString readString(Bytes payload)
{
    if (payload.empty()) return {};
    const auto *chars = reinterpret_cast<const char *>(payload.data());
    return QString::fromUtf8(chars, qsizetype(strnlen(chars, payload.size())));
}

// The fixed family header that follows the netlink header, and the attributes after it.
template <typename FamilyHeader>
bool splitMessage(Bytes message, std::uint16_t expectedType, FamilyHeader &header, Bytes &attributes)
{
    nlmsghdr nlh;
    if (!detail::readHeader(message, nlh) || nlh.nlmsg_type != expectedType) return false;
    if (nlh.nlmsg_len != message.size()) return false;
    if (!readAt(message, NLMSG_HDRLEN, header)) return false;
    const std::size_t start = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(FamilyHeader));
    attributes = start >= message.size() ? Bytes{} : message.subspan(start);
    return true;
}

} // namespace

namespace detail {
bool readHeader(Bytes bytes, nlmsghdr &out) { return readAt(bytes, 0, out); }
bool readAttributeHeader(Bytes bytes, nlattr &out) { return readAt(bytes, 0, out); }
} // namespace detail

std::optional<LinkMessage> parseLink(Bytes message)
{
    ifinfomsg info;
    Bytes attributes;
    if (!splitMessage(message, RTM_NEWLINK, info, attributes)) return std::nullopt;
    LinkMessage link;
    link.index = info.ifi_index;
    link.flags = info.ifi_flags;
    const bool wellFormed = forEachAttribute(attributes, [&](const Attribute &a) {
        if (a.type == IFLA_IFNAME) link.name = readString(a.payload);
    });
    if (!wellFormed || link.index <= 0 || link.name.isEmpty()) return std::nullopt;
    return link;
}

std::optional<AddressMessage> parseIPv4Address(Bytes message)
{
    ifaddrmsg info;
    Bytes attributes;
    if (!splitMessage(message, RTM_NEWADDR, info, attributes) || info.ifa_family != AF_INET) return std::nullopt;
    std::optional<std::uint32_t> local;
    std::optional<std::uint32_t> address;
    const bool wellFormed = forEachAttribute(attributes, [&](const Attribute &a) {
        std::uint32_t value;
        if (!readU32(a.payload, value)) return;
        if (a.type == IFA_LOCAL) local = value;
        else if (a.type == IFA_ADDRESS) address = value;
    });
    if (!wellFormed || int(info.ifa_index) <= 0) return std::nullopt;
    // On point-to-point links IFA_ADDRESS is the peer; IFA_LOCAL is always our own.
    if (!local && !address) return std::nullopt;
    return AddressMessage{int(info.ifa_index), local ? *local : *address};
}

namespace {

bool isDeadNexthop(unsigned flags) { return flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN); }

// RTA_MULTIPATH: a packed list of rtnexthop, each followed by its own attributes.
bool readNexthops(Bytes bytes, std::vector<int> &interfaces)
{
    while (!bytes.empty()) {
        rtnexthop nexthop;
        if (!readAt(bytes, 0, nexthop)) return false;
        const std::size_t length = nexthop.rtnh_len;
        if (length < sizeof(rtnexthop) || length > bytes.size()) return false;
        if (!isDeadNexthop(nexthop.rtnh_flags) && nexthop.rtnh_ifindex > 0) interfaces.push_back(nexthop.rtnh_ifindex);
        const std::size_t step = RTNH_ALIGN(length);
        bytes = step >= bytes.size() ? Bytes{} : bytes.subspan(step);
    }
    return true;
}

} // namespace

std::optional<DefaultRouteMessage> parseDefaultRoute(Bytes message)
{
    rtmsg info;
    Bytes attributes;
    if (!splitMessage(message, RTM_NEWROUTE, info, attributes)) return std::nullopt;
    if (info.rtm_family != AF_INET || info.rtm_dst_len != 0 || info.rtm_type != RTN_UNICAST) return std::nullopt;
    std::uint32_t table = info.rtm_table;
    std::uint32_t oif = 0;
    DefaultRouteMessage route;
    bool nexthopsOk = true;
    const bool wellFormed = forEachAttribute(attributes, [&](const Attribute &a) {
        switch (a.type) {
        case RTA_TABLE: readU32(a.payload, table); break;
        case RTA_OIF: readU32(a.payload, oif); break;
        case RTA_PRIORITY: readU32(a.payload, route.metric); break;
        case RTA_MULTIPATH: nexthopsOk = readNexthops(a.payload, route.interfaces); break;
        default: break;
        }
    });
    if (!wellFormed || !nexthopsOk || table != RT_TABLE_MAIN) return std::nullopt;
    if (int(oif) > 0 && !isDeadNexthop(info.rtm_flags)) route.interfaces.insert(route.interfaces.begin(), int(oif));
    if (route.interfaces.empty()) return std::nullopt;
    return route;
}

std::optional<WifiInterfaceMessage> parseWifiInterface(Bytes message, std::uint16_t familyId)
{
    genlmsghdr genl;
    Bytes attributes;
    if (!splitMessage(message, familyId, genl, attributes)) return std::nullopt;
    if (genl.cmd != NL80211_CMD_NEW_INTERFACE) return std::nullopt;
    WifiInterfaceMessage wifi;
    std::uint32_t index = 0;
    bool ssidOk = true;
    const bool wellFormed = forEachAttribute(attributes, [&](const Attribute &a) {
        switch (a.type) {
        case NL80211_ATTR_IFINDEX: readU32(a.payload, index); break;
        case NL80211_ATTR_IFNAME: wifi.name = readString(a.payload); break;
        case NL80211_ATTR_SSID:
            if (a.payload.size() > kMaxSsidLength) ssidOk = false;
            else wifi.ssid = QByteArray(reinterpret_cast<const char *>(a.payload.data()), qsizetype(a.payload.size()));
            break;
        default: break;
        }
    });
    if (!wellFormed || !ssidOk || int(index) <= 0 || wifi.name.isEmpty()) return std::nullopt;
    wifi.index = int(index);
    return wifi;
}

} // namespace velocast::netlink
