#pragma once

#include <QString>
#include <QVariantList>

#include <functional>
#include <memory>
#include <mutex>

class QThread;
struct sockaddr;

namespace velocast {

class NetworkChangeSource;
class NetworkPlatform;

// Watches whether this computer has a network and which one, and tells its owner through one
// callback, wifiStateBlock(hasNet, isWifi, SSID, ipStr):
//   no usable path out                -> (false, true, "", "")   (isWifi true on purpose)
//   Wi-Fi primary interface           -> (true, true, SSID, its IPv4 address)
//   any other primary interface       -> (true, false, resolver default domain, its IPv4 address)
// The primary interface is the one of the default IPv4 route, else the first up, non-loopback
// interface with an IPv4 address. While there is a way out but no address yet, the monitor
// looks again once a second until an address shows up or the way out goes away.
//
// Threads: scanning, the change watch and the once-a-second retry all run on the monitor's own
// thread ("net check"), and the block is called there, never on the main thread: receivers move
// UI work to the main thread themselves. All member functions may be called from any thread.
// The block must neither destroy the monitor nor wait for the thread that destroys it.
class MacNetCheck {
public:
    using WifiStateBlock
        = std::function<void(bool hasNet, bool isWifi, const QString &SSID, const QString &ipStr)>;

    // Opens the change watch and starts the monitor's thread; a watch that cannot be opened
    // is logged by checkWiFiState() and makes startNotifier() return false.
    MacNetCheck();
    // Uses another source of platform facts (tests use one with a simulated Wi-Fi radio).
    // `platform` is not owned and must outlive the monitor.
    explicit MacNetCheck(const NetworkPlatform &platform);
    // stopNotifier(), then waits for a scan in progress to finish; no block call after return.
    ~MacNetCheck();
    MacNetCheck(const MacNetCheck &) = delete;
    MacNetCheck &operator=(const MacNetCheck &) = delete;

    WifiStateBlock wifiStateBlock() const;
    void setWifiStateBlock(WifiStateBlock block);
    // Last address and network name found by a scan ("" before the first one).
    QString ipStr() const;
    QString SSID() const;

    // The start call: begins watching for changes (SSID changes ride on the same link events;
    // logs "error:..." when no watch can be had) and reports the current state.
    void checkWiFiState();
    // Starts watching for changes. False when the watch could not be opened or stopNotifier()
    // has released it for good.
    bool startNotifier();
    // Ends the watch and releases it; it cannot be started again.
    void stopNotifier();
    // Whether there is a usable IPv4 path out; true when the tables cannot be read.
    // Blocks the caller on a few kernel queries (microseconds), never on the network.
    bool hasNet() const;
    // Queues a scan on the monitor's thread and returns at once; the scan calls the block.
    void netChanged();
    void ssidDidChangeForWiFiInterfaceWithName(const QString &interfaceName);

    // The IPv4 address of the primary interface (the last one it has, when it has several);
    // "Not connected" when there is none or it starts with "127".
    static QString ipV4LastEn();
    // The SSID of the default Wi-Fi interface; a null string without Wi-Fi or when not associated.
    static QString currentWifiSSID();
    // [name, ipv4, isWifi] for the primary interface, or an empty list (null) when there is no
    // primary interface. Wi-Fi: name is the SSID and the interface's last IPv4 address is taken;
    // otherwise name is outPutDNSDomain() and its first IPv4 address is taken. Without an address
    // the entries are ["", "", isWifi] (Wi-Fi: [SSID, "", true]).
    static QVariantList defaultSSIDAndIPV4();
    static QVariantList defaultSSIDAndIPV4(const NetworkPlatform &platform);
    // Dotted decimal for an AF_INET address; a null string for anything else (or nullptr).
    static QString IPFromSockaddr_in(const sockaddr *address);
    // The resolver's default domain, "" when there is none.
    static QString outPutDNSDomain();

private:
    class Worker;

    const NetworkPlatform &platform_;

    mutable std::mutex mutex_; // guards the four fields below
    WifiStateBlock _wifiStateBlock;
    QString _ipStr;
    QString _SSID;
    // The change watch; shared with the worker, which closes it on its own thread after it has
    // dropped the socket notifier on it.
    std::shared_ptr<NetworkChangeSource> macNetCheck_reachabilityRef;
    QString watchError_;

    // The thread deletes the worker when it finishes (see the destructor).
    std::unique_ptr<QThread> thread_;
    Worker *worker_ = nullptr;
};

} // namespace velocast
