#pragma once

// rtnetlink backend of the network monitor: one-shot dumps of links, IPv4 addresses and IPv4
// routes for the reachability decision, and a multicast subscription for change events.

#include "net/linux/netlink_messages.h"
#include "net/network_platform.h"

#include <memory>
#include <optional>
#include <vector>

namespace velocast {

// The decision over one dump of the tables: which links count (up, running, not loopback),
// whether there is a way out, and which interface is primary. Among usable default routes the
// lowest metric wins, then dump order; without one, the usable link with the lowest index that
// has an IPv4 address.
RouteState decideRouteState(const std::vector<netlink::LinkMessage> &links,
                            const std::vector<netlink::AddressMessage> &addresses,
                            const std::vector<netlink::DefaultRouteMessage> &defaultRoutes);

// Dumps the tables of the calling thread's network namespace and decides. Blocking, but only on
// the kernel (gives up after about a second). nullopt when a dump failed.
std::optional<RouteState> readRouteState();

// Subscribed to link, IPv4 address and IPv4 route notifications.
class NetlinkChangeSource final : public NetworkChangeSource {
public:
    // nullptr, with the reason in *error, when the socket cannot be opened or bound.
    static std::unique_ptr<NetlinkChangeSource> open(QString *error);
    ~NetlinkChangeSource() override;

    int fd() const override { return fd_; }
    bool drain() override;

private:
    explicit NetlinkChangeSource(int fd);

    int fd_;
    std::vector<std::uint8_t> buffer_;
};

} // namespace velocast
