#include "net/linux/netlink_monitor.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velocast {

namespace {

// Large enough for any datagram the kernel sends for a dump (it fills at most 32 KiB per
// datagram); a truncated datagram still fails the dump instead of being misread.
constexpr std::size_t kReceiveBufferSize = 64 * 1024;
// A dump that takes longer than this (only possible with a wedged kernel or someone flooding
// our port) is abandoned.
constexpr int kDumpTimeoutMs = 1000;
// Changes read per drain(); more are left for the next activation of the level-triggered watch.
constexpr int kMaxReadsPerDrain = 64;
// A dump that raced with a change of the table (NLM_F_DUMP_INTR) is repeated this often.
constexpr int kDumpAttempts = 3;

class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

bool isUsable(const netlink::LinkMessage &link)
{
    return (link.flags & IFF_UP) && (link.flags & IFF_RUNNING) && !(link.flags & IFF_LOOPBACK);
}

enum class DumpResult { ok, interrupted, failed };

// Sends one dump request (RTM_GET*) and hands each reply message to `onMessage`.
DumpResult dump(int fd, std::uint16_t type, std::size_t familyHeaderSize, std::uint32_t seq,
                const std::function<void(netlink::Bytes)> &onMessage)
{
    // nlmsghdr followed by the zeroed family header (ifinfomsg / ifaddrmsg / rtmsg), whose first
    // byte is the address family in all three.
    std::uint8_t request[NLMSG_HDRLEN + 32] = {};
    const std::size_t length = NLMSG_HDRLEN + NLMSG_ALIGN(familyHeaderSize);
    nlmsghdr header{};
    header.nlmsg_len = std::uint32_t(length);
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    header.nlmsg_seq = seq;
    std::memcpy(request, &header, sizeof header);
    request[NLMSG_HDRLEN] = type == RTM_GETLINK ? AF_UNSPEC : AF_INET;

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(fd, request, length, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) != ssize_t(length))
        return DumpResult::failed;

    std::vector<std::uint8_t> buffer(kReceiveBufferSize);
    QDeadlineTimer deadline(kDumpTimeoutMs);
    bool interrupted = false;
    for (;;) {
        pollfd pfd{fd, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, int(deadline.remainingTime()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return DumpResult::failed;

        sockaddr_nl from{};
        iovec iov{buffer.data(), buffer.size()};
        msghdr mh{};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        const ssize_t n = ::recvmsg(fd, &mh, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return DumpResult::failed;
        }
        if (mh.msg_flags & MSG_TRUNC) return DumpResult::failed;
        if (from.nl_pid != 0) continue; // only the kernel answers dumps

        bool done = false;
        bool failed = false;
        const bool wellFormed = netlink::forEachMessage(
            netlink::Bytes(buffer.data(), std::size_t(n)), [&](const nlmsghdr &h, netlink::Bytes message) {
                if (h.nlmsg_seq != seq) return true; // left over from an earlier request
                if (h.nlmsg_flags & NLM_F_DUMP_INTR) interrupted = true;
                if (h.nlmsg_type == NLMSG_DONE) {
                    done = true;
                    return false;
                }
                if (h.nlmsg_type == NLMSG_ERROR) {
                    failed = true;
                    return false;
                }
                onMessage(message);
                return true;
            });
        if (!wellFormed || failed) return DumpResult::failed;
        if (done) return interrupted ? DumpResult::interrupted : DumpResult::ok;
    }
}

} // namespace

RouteState decideRouteState(const std::vector<netlink::LinkMessage> &links,
                            const std::vector<netlink::AddressMessage> &addresses,
                            const std::vector<netlink::DefaultRouteMessage> &defaultRoutes)
{
    auto usableLink = [&](int index) -> const netlink::LinkMessage * {
        for (const auto &link : links)
            if (link.index == index) return isUsable(link) ? &link : nullptr;
        return nullptr;
    };

    RouteState state;
    const netlink::LinkMessage *best = nullptr;
    std::uint32_t bestMetric = 0;
    for (const auto &route : defaultRoutes) {
        for (int index : route.interfaces) {
            const auto *link = usableLink(index);
            if (!link) continue;
            if (!best || route.metric < bestMetric) {
                best = link;
                bestMetric = route.metric;
            }
            break; // the first live nexthop stands for the route
        }
    }
    if (!best) {
        for (const auto &address : addresses) {
            const auto *link = usableLink(address.index);
            if (link && (!best || link->index < best->index)) best = link;
        }
    }
    if (best) {
        state.reachable = true;
        state.primaryInterface = best->name;
    }
    return state;
}

std::optional<RouteState> readRouteState()
{
    Socket socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (socket.fd() < 0) return std::nullopt;

    std::uint32_t seq = 1;
    for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
        std::vector<netlink::LinkMessage> links;
        std::vector<netlink::AddressMessage> addresses;
        std::vector<netlink::DefaultRouteMessage> routes;
        DumpResult results[] = {
            dump(socket.fd(), RTM_GETLINK, sizeof(ifinfomsg), seq++,
                 [&](netlink::Bytes m) {
                     if (auto link = netlink::parseLink(m)) links.push_back(std::move(*link));
                 }),
            dump(socket.fd(), RTM_GETADDR, sizeof(ifaddrmsg), seq++,
                 [&](netlink::Bytes m) {
                     if (auto address = netlink::parseIPv4Address(m)) addresses.push_back(*address);
                 }),
            dump(socket.fd(), RTM_GETROUTE, sizeof(rtmsg), seq++,
                 [&](netlink::Bytes m) {
                     if (auto route = netlink::parseDefaultRoute(m)) routes.push_back(std::move(*route));
                 }),
        };
        if (std::ranges::any_of(results, [](DumpResult r) { return r == DumpResult::failed; })) return std::nullopt;
        if (std::ranges::none_of(results, [](DumpResult r) { return r == DumpResult::interrupted; }))
            return decideRouteState(links, addresses, routes);
    }
    return std::nullopt;
}

std::unique_ptr<NetlinkChangeSource> NetlinkChangeSource::open(QString *error)
{
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) {
        if (error) *error = QStringLiteral("netlink socket: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return nullptr;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
        if (error) *error = QStringLiteral("netlink bind: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        ::close(fd);
        return nullptr;
    }
    return std::unique_ptr<NetlinkChangeSource>(new NetlinkChangeSource(fd));
}

NetlinkChangeSource::NetlinkChangeSource(int fd) : fd_(fd), buffer_(kReceiveBufferSize) {}

NetlinkChangeSource::~NetlinkChangeSource() { ::close(fd_); }

bool NetlinkChangeSource::drain()
{
    bool changed = false;
    for (int reads = 0; reads < kMaxReadsPerDrain; ++reads) {
        sockaddr_nl from{};
        socklen_t fromLength = sizeof from;
        const ssize_t n = ::recvfrom(fd_, buffer_.data(), buffer_.size(), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr *>(&from), &fromLength);
        if (n < 0) {
            if (errno == EINTR) continue;
            // The socket's buffer overflowed: notifications were lost, so look again.
            if (errno == ENOBUFS) {
                changed = true;
                continue;
            }
            break;
        }
        if (from.nl_pid != 0) continue; // notifications come from the kernel only
        netlink::forEachMessage(netlink::Bytes(buffer_.data(), std::size_t(n)), [&](const nlmsghdr &h, netlink::Bytes) {
            switch (h.nlmsg_type) {
            case RTM_NEWLINK:
            case RTM_DELLINK:
            case RTM_NEWADDR:
            case RTM_DELADDR:
            case RTM_NEWROUTE:
            case RTM_DELROUTE: changed = true; return false;
            default: return true;
            }
        });
    }
    return changed;
}

} // namespace velocast
