#include "net/mac_net_check.h"

#include "common/log.h"
#include "net/network_platform.h"

#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace velocast {

namespace {

// Change notifications come in bursts (a link going down takes its addresses and routes with
// it); one scan covers a burst.
constexpr int kCoalesceMs = 100;
constexpr int kRetryMs = 1000;

const QString kNotConnected = QStringLiteral("Not connected");

struct IfAddrsDeleter {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};

// getifaddrs names an IPv4 address by its label, which is "eth0" or an alias such as "eth0:1".
bool isOnInterface(const char *label, const QByteArray &interfaceName)
{
    const std::size_t n = std::size_t(interfaceName.size());
    return std::strncmp(label, interfaceName.constData(), n) == 0 && (label[n] == '\0' || label[n] == ':');
}

// Calls fn(const sockaddr *) for each IPv4 address of the interface, in the system's order,
// until fn returns false.
template <typename Fn>
void forEachIPv4AddressOf(const QString &interfaceName, Fn &&fn)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return;
    const std::unique_ptr<ifaddrs, IfAddrsDeleter> guard(list);
    const QByteArray name = interfaceName.toLocal8Bit();
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_name || !entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        if (!isOnInterface(entry->ifa_name, name)) continue;
        if (!fn(entry->ifa_addr)) return;
    }
}

} // namespace

// Lives on the monitor's thread and owns everything that runs there: the socket notifier on the
// change watch, the burst timer and the retry timer.
class MacNetCheck::Worker : public QObject {
public:
    explicit Worker(MacNetCheck &owner) : owner_(owner), coalesce_(new QTimer(this)), retry_(new QTimer(this))
    {
        coalesce_->setSingleShot(true);
        coalesce_->setInterval(kCoalesceMs);
        retry_->setSingleShot(true);
        retry_->setInterval(kRetryMs);
        connect(coalesce_, &QTimer::timeout, this, &Worker::scan);
        connect(retry_, &QTimer::timeout, this, &Worker::scan);
    }

    // Runs on the monitor's thread, after its event loop has ended.
    ~Worker() override { unwatch(); }

    void watch(std::shared_ptr<NetworkChangeSource> source)
    {
        if (source_) return;
        source_ = std::move(source);
        notifier_ = new QSocketNotifier(source_->fd(), QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, [this] {
            // Not restarted while running: a steady stream of changes must not hold back the scan.
            if (source_->drain() && !coalesce_->isActive()) coalesce_->start();
        });
    }

    // The notifier goes before the source it watches, so the fd is never watched after close.
    void unwatch()
    {
        delete notifier_;
        notifier_ = nullptr;
        coalesce_->stop();
        source_.reset();
    }

    // One look at the network; reports through the block, or schedules the next look when there
    // is a way out but no address yet.
    void scan()
    {
        retry_->stop();
        const WifiStateBlock block = owner_.wifiStateBlock();
        if (!block) return;
        if (!owner_.hasNet()) {
            retrying_ = false;
            block(false, true, QString(), QString());
            return;
        }
        const QVariantList info = defaultSSIDAndIPV4(owner_.platform_);
        QString ssid;
        QString ip;
        if (info.size() >= 2) {
            ssid = info.at(0).toString();
            ip = info.at(1).toString();
        }
        {
            std::lock_guard lock(owner_.mutex_);
            owner_._SSID = ssid;
            owner_._ipStr = ip;
        }
        if (!ip.isEmpty()) {
            retrying_ = false;
            const bool isWifi = info.size() == 3 ? info.at(2).toBool() : true;
            block(true, isWifi, ssid, ip);
            return;
        }
        if (!retrying_) logLine(lcNet(), QStringLiteral("net check: no IPv4 address yet, looking again every second"));
        retrying_ = true;
        retry_->start();
    }

private:
    MacNetCheck &owner_;
    QTimer *coalesce_;
    QTimer *retry_;
    QSocketNotifier *notifier_ = nullptr;
    std::shared_ptr<NetworkChangeSource> source_;
    bool retrying_ = false; // logged once per stretch without an address
};

MacNetCheck::MacNetCheck() : MacNetCheck(networkPlatform()) {}

MacNetCheck::MacNetCheck(const NetworkPlatform &platform)
    : platform_(platform), macNetCheck_reachabilityRef(platform_.openChangeSource(&watchError_)),
      thread_(std::make_unique<QThread>())
{
    thread_->setObjectName(QStringLiteral("net check"));
    worker_ = new Worker(*this);
    worker_->moveToThread(thread_.get());
    // Deferred deletions still run on the thread after `finished`, so the worker, its timers and
    // its notifier are destroyed on the thread they belong to.
    QObject::connect(thread_.get(), &QThread::finished, worker_, &QObject::deleteLater);
    thread_->start();
}

MacNetCheck::~MacNetCheck()
{
    stopNotifier();
    thread_->quit();
    thread_->wait();
}

MacNetCheck::WifiStateBlock MacNetCheck::wifiStateBlock() const
{
    std::lock_guard lock(mutex_);
    return _wifiStateBlock;
}

void MacNetCheck::setWifiStateBlock(WifiStateBlock block)
{
    std::lock_guard lock(mutex_);
    _wifiStateBlock = std::move(block);
}

QString MacNetCheck::ipStr() const
{
    std::lock_guard lock(mutex_);
    return _ipStr;
}

QString MacNetCheck::SSID() const
{
    std::lock_guard lock(mutex_);
    return _SSID;
}

void MacNetCheck::checkWiFiState()
{
    QString error;
    {
        std::lock_guard lock(mutex_);
        if (!macNetCheck_reachabilityRef) error = watchError_;
    }
    if (!error.isEmpty()) logLine(lcNet(), QStringLiteral("error:%1").arg(error));
    startNotifier();
    netChanged();
}

bool MacNetCheck::startNotifier()
{
    // Posted under the lock so that a concurrent stopNotifier() is queued after it, never before.
    std::lock_guard lock(mutex_);
    if (!macNetCheck_reachabilityRef) return false;
    QMetaObject::invokeMethod(
        worker_, [worker = worker_, source = macNetCheck_reachabilityRef] { worker->watch(source); },
        Qt::QueuedConnection);
    return true;
}

void MacNetCheck::stopNotifier()
{
    std::lock_guard lock(mutex_);
    if (!macNetCheck_reachabilityRef) return;
    macNetCheck_reachabilityRef.reset();
    QMetaObject::invokeMethod(worker_, [worker = worker_] { worker->unwatch(); }, Qt::QueuedConnection);
}

bool MacNetCheck::hasNet() const
{
    const auto state = platform_.routeState();
    return !state || state->reachable;
}

void MacNetCheck::netChanged()
{
    QMetaObject::invokeMethod(worker_, [worker = worker_] { worker->scan(); }, Qt::QueuedConnection);
}

void MacNetCheck::ssidDidChangeForWiFiInterfaceWithName(const QString &) { netChanged(); }

QString MacNetCheck::ipV4LastEn()
{
    QString result = kNotConnected;
    if (const auto state = networkPlatform().routeState(); state && !state->primaryInterface.isEmpty()) {
        forEachIPv4AddressOf(state->primaryInterface, [&](const sockaddr *address) {
            result = IPFromSockaddr_in(address);
            return true;
        });
    }
    if (result.startsWith(QLatin1String("127"))) return kNotConnected;
    return result;
}

QString MacNetCheck::currentWifiSSID()
{
    const auto interfaces = networkPlatform().wifiInterfaces();
    if (interfaces.empty() || !interfaces.front().ssid) return QString();
    return QString::fromUtf8(*interfaces.front().ssid);
}

QVariantList MacNetCheck::defaultSSIDAndIPV4() { return defaultSSIDAndIPV4(networkPlatform()); }

QVariantList MacNetCheck::defaultSSIDAndIPV4(const NetworkPlatform &platform)
{
    const auto state = platform.routeState();
    if (!state || state->primaryInterface.isEmpty()) return {};
    const QString &interfaceName = state->primaryInterface;

    std::optional<QString> ssid;
    for (const auto &wifi : platform.wifiInterfaces()) {
        if (wifi.name != interfaceName) continue;
        if (wifi.ssid) ssid = QString::fromUtf8(*wifi.ssid);
        break;
    }
    const bool isWifi = ssid.has_value();

    QString name;
    QString ip;
    forEachIPv4AddressOf(interfaceName, [&](const sockaddr *address) {
        ip = IPFromSockaddr_in(address);
        if (isWifi) return true; // the last address of a Wi-Fi interface wins
        name = platform.resolverDefaultDomain();
        return false;
    });
    if (isWifi) name = *ssid;
    return {name, ip, isWifi};
}

QString MacNetCheck::IPFromSockaddr_in(const sockaddr *address)
{
    if (!address || address->sa_family != AF_INET) return QString();
    sockaddr_in ipv4;
    std::memcpy(&ipv4, address, sizeof ipv4);
    char text[INET_ADDRSTRLEN] = {};
    if (!inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text)) return QString();
    return QString::fromLatin1(text);
}

QString MacNetCheck::outPutDNSDomain() { return networkPlatform().resolverDefaultDomain(); }

} // namespace velocast
