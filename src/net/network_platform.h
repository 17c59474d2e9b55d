#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

namespace velocast {

// The kernel's view of the way out, read in one consistent look at links, IPv4 addresses
// and IPv4 routes.
struct RouteState {
    // A usable IPv4 path out: a default route over an interface that is up, or at least one
    // up, non-loopback interface with an IPv4 address.
    bool reachable = false;
    // The interface of the best default IPv4 route, else the first up non-loopback interface
    // that has an IPv4 address; empty when there is none.
    QString primaryInterface;
};

struct WifiInterface {
    QString name;
    // The network the interface is associated with (up to 32 raw bytes); absent when it is not.
    std::optional<QByteArray> ssid;
};

// A change watch on links, IPv4 addresses and routes (which also covers Wi-Fi association
// changes: they change the link's operational state).
class NetworkChangeSource {
public:
    virtual ~NetworkChangeSource() = default;
    // Becomes readable when the platform has something to report; valid for this object's life.
    virtual int fd() const = 0;
    // Reads everything pending without blocking (bounded per call; the fd stays readable when
    // more is left). True when a relevant change was seen or notifications were lost.
    // One thread at a time.
    virtual bool drain() = 0;
};

// Platform facts for the network status monitor.
//
// Every function may be called from any thread, also concurrently. They ask the kernel and read
// local files only, never the network, so they return within milliseconds (a stuck kernel query
// gives up after about a second and counts as a failure).
class NetworkPlatform {
public:
    virtual ~NetworkPlatform() = default;
    // nullopt when the kernel's tables could not be read.
    virtual std::optional<RouteState> routeState() const = 0;
    // Wireless interfaces, the default one first; empty without Wi-Fi or when the Wi-Fi facts
    // cannot be read.
    virtual std::vector<WifiInterface> wifiInterfaces() const = 0;
    // The resolver's default domain ("" when there is none or the configuration is unreadable).
    virtual QString resolverDefaultDomain() const = 0;
    // Opens a change watch; nullptr, with a reason in *error, when that is impossible.
    virtual std::unique_ptr<NetworkChangeSource> openChangeSource(QString *error) const = 0;
};

// This system's implementation; made on first use and kept for the life of the process.
const NetworkPlatform &networkPlatform();

} // namespace velocast
