// The Linux facts behind the network monitor: rtnetlink for reachability, the primary
// interface and change events; nl80211 for Wi-Fi; glibc's resolver for the default domain.

#include "net/linux/netlink_monitor.h"
#include "net/linux/nl80211_wifi.h"
#include "net/network_platform.h"

#include <cstring>

#include <netinet/in.h>
#include <resolv.h>

namespace velocast {

namespace {

class LinuxNetworkPlatform final : public NetworkPlatform {
public:
    std::optional<RouteState> routeState() const override { return readRouteState(); }

    std::vector<WifiInterface> wifiInterfaces() const override { return readWifiInterfaces(); }

    // The "domain" line, else the first "search" entry, of the resolver configuration.
    QString resolverDefaultDomain() const override
    {
        // A private resolver state, so this is safe from any thread.
        auto state = std::make_unique<struct __res_state>();
        std::memset(state.get(), 0, sizeof(struct __res_state));
        if (res_ninit(state.get()) != 0) return QString();
        const QString domain
            = QString::fromLocal8Bit(state->defdname, qsizetype(strnlen(state->defdname, sizeof state->defdname)));
        res_nclose(state.get());
        return domain;
    }

    std::unique_ptr<NetworkChangeSource> openChangeSource(QString *error) const override
    {
        return NetlinkChangeSource::open(error);
    }
};

} // namespace

const NetworkPlatform &networkPlatform()
{
    static const LinuxNetworkPlatform platform;
    return platform;
}

} // namespace velocast
