#pragma once

// Bounded readers for the netlink messages the network monitor consumes (rtnetlink link,
// address and route messages, and nl80211 interface messages). Everything here treats its
// input as untrusted: every length field is checked against the bytes that are actually
// there, and a message with a malformed length is rejected as a whole.

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <linux/netlink.h>

namespace velocast::netlink {

using Bytes = std::span<const std::uint8_t>;

struct Attribute {
    std::uint16_t type; // without the nested / byte-order flag bits
    Bytes payload;
};

// Calls fn(const Attribute &) for each attribute in a stream of netlink attributes (the
// layout of nlattr and rtattr is the same). Returns false, after reporting the attributes
// before it, when an attribute's length is shorter than its header or runs past the end.
template <typename Fn>
bool forEachAttribute(Bytes bytes, Fn &&fn);

// Calls fn(const nlmsghdr &, Bytes message) for each message in a datagram; `message` covers
// exactly nlmsg_len bytes, header included. fn returns false to stop early. Returns false when
// a message's length is shorter than its header or runs past the end of the datagram.
template <typename Fn>
bool forEachMessage(Bytes datagram, Fn &&fn);

struct LinkMessage {
    int index = 0;
    unsigned flags = 0; // IFF_*
    QString name;
};

struct AddressMessage {
    int index = 0;
    std::uint32_t address = 0; // network byte order
};

struct DefaultRouteMessage {
    std::vector<int> interfaces; // outgoing interfaces of the nexthops that are not dead
    std::uint32_t metric = 0;
};

struct WifiInterfaceMessage {
    int index = 0;
    QString name;
    std::optional<QByteArray> ssid;
};

// RTM_NEWLINK with its interface name.
std::optional<LinkMessage> parseLink(Bytes message);
// RTM_NEWADDR for an IPv4 address (IFA_LOCAL, else IFA_ADDRESS).
std::optional<AddressMessage> parseIPv4Address(Bytes message);
// RTM_NEWROUTE for an IPv4 unicast default route (destination length 0) in the main table;
// nullopt for every other route.
std::optional<DefaultRouteMessage> parseDefaultRoute(Bytes message);
// An nl80211 interface message (reply to NL80211_CMD_GET_INTERFACE) of the generic netlink
// family `familyId`, with index and name; the SSID when associated (at most 32 bytes).
std::optional<WifiInterfaceMessage> parseWifiInterface(Bytes message, std::uint16_t familyId);

// ---- implementation of the templates ----

namespace detail {
bool readHeader(Bytes bytes, nlmsghdr &out);
bool readAttributeHeader(Bytes bytes, nlattr &out);
} // namespace detail

template <typename Fn>
bool forEachAttribute(Bytes bytes, Fn &&fn)
{
    while (!bytes.empty()) {
        nlattr header;
        if (!detail::readAttributeHeader(bytes, header)) return false;
        const std::size_t length = header.nla_len;
        if (length < NLA_HDRLEN || length > bytes.size()) return false;
        fn(Attribute{std::uint16_t(header.nla_type & NLA_TYPE_MASK), bytes.subspan(NLA_HDRLEN, length - NLA_HDRLEN)});
        // The padding after the last attribute may be missing.
        const std::size_t step = NLA_ALIGN(length);
        bytes = step >= bytes.size() ? Bytes{} : bytes.subspan(step);
    }
    return true;
}

template <typename Fn>
bool forEachMessage(Bytes datagram, Fn &&fn)
{
    while (!datagram.empty()) {
        nlmsghdr header;
        if (!detail::readHeader(datagram, header)) return false;
        const std::size_t length = header.nlmsg_len;
        if (length < sizeof(nlmsghdr) || length > datagram.size()) return false;
        if (!fn(header, datagram.first(length))) return true;
        const std::size_t step = NLMSG_ALIGN(length);
        datagram = step >= datagram.size() ? Bytes{} : datagram.subspan(step);
    }
    return true;
}

} // namespace velocast::netlink
