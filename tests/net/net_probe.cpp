// Runs the network status monitor in the network namespace it was started in (the namespace
// tests start it with `ip netns exec`, which also gives it the namespace's resolv.conf and
// sysfs) and prints what it sees as JSON lines on standard output.
//
// Usage: net_probe [--no-events] [--fake-wifi IFNAME=SSID]
//   --no-events   never start the change watch, so only the once-a-second retry can find news
//   --fake-wifi   pretend IFNAME is a Wi-Fi interface associated with SSID (no radio here)
// Commands on standard input, one a line: "query"; "ssid NAME" (fake Wi-Fi: associate with NAME,
// "ssid" alone: not associated), then the SSID-change event; "quit". End of input quits too.
// Output lines: {"event":"report",...} for every block call, {"event":"query",...},
// {"event":"log","text":...} for the monitor's log lines, and {"event":"bye"} before exiting.

#include "common/log.h"
#include "common/main_thread.h"
#include "net/mac_net_check.h"
#include "net/network_platform.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>

#include <cstdio>
#include <mutex>
#include <unistd.h>

using velocast::MacNetCheck;

namespace {

void emitLine(const QJsonObject &object)
{
    static std::mutex mutex;
    const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    std::lock_guard lock(mutex);
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// The real platform, except that one interface is reported as a Wi-Fi interface.
class FakeWifiPlatform final : public velocast::NetworkPlatform {
public:
    FakeWifiPlatform(QString interfaceName, QByteArray ssid) : name_(std::move(interfaceName)), ssid_(std::move(ssid)) {}

    void setSsid(std::optional<QByteArray> ssid)
    {
        std::lock_guard lock(mutex_);
        ssid_ = std::move(ssid);
    }
    std::optional<velocast::RouteState> routeState() const override { return real().routeState(); }
    std::vector<velocast::WifiInterface> wifiInterfaces() const override
    {
        std::lock_guard lock(mutex_);
        return {velocast::WifiInterface{name_, ssid_}};
    }
    QString resolverDefaultDomain() const override { return real().resolverDefaultDomain(); }
    std::unique_ptr<velocast::NetworkChangeSource> openChangeSource(QString *error) const override
    {
        return real().openChangeSource(error);
    }

private:
    static const velocast::NetworkPlatform &real() { return velocast::networkPlatform(); }
    const QString name_;
    mutable std::mutex mutex_;
    std::optional<QByteArray> ssid_;
};

QJsonValue nullable(const QString &s) { return s.isNull() ? QJsonValue() : QJsonValue(s); }

QJsonObject query()
{
    const QVariantList info = MacNetCheck::defaultSSIDAndIPV4();
    return QJsonObject{
        {"event", "query"},
        {"ipV4LastEn", MacNetCheck::ipV4LastEn()},
        {"currentWifiSSID", nullable(MacNetCheck::currentWifiSSID())},
        {"defaultSSIDAndIPV4", info.isEmpty() ? QJsonValue() : QJsonValue(QJsonArray::fromVariantList(info))},
        {"outPutDNSDomain", MacNetCheck::outPutDNSDomain()},
    };
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const bool events = !args.contains(QStringLiteral("--no-events"));
    std::unique_ptr<FakeWifiPlatform> fake;
    if (const auto at = args.indexOf(QStringLiteral("--fake-wifi")); at > 0 && at + 1 < args.size()) {
        const QString spec = args.at(at + 1);
        fake = std::make_unique<FakeWifiPlatform>(spec.section('=', 0, 0), spec.section('=', 1).toUtf8());
    }

    velocast::setLogTap([](const char *, const QString &text) { emitLine({{"event", "log"}, {"text", text}}); });

    auto monitor = fake ? std::make_unique<MacNetCheck>(*fake) : std::make_unique<MacNetCheck>();
    monitor->setWifiStateBlock([](bool hasNet, bool isWifi, const QString &ssid, const QString &ip) {
        emitLine({{"event", "report"}, {"hasNet", hasNet}, {"isWifi", isWifi}, {"name", ssid}, {"ip", ip},
                  {"mainThread", velocast::isMainThread()}});
    });
    if (!events) monitor->stopNotifier();
    monitor->checkWiFiState();

    auto quit = [&] {
        monitor.reset(); // no report after this
        emitLine({{"event", "bye"}});
        app.quit();
    };
    QByteArray pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&] {
        char chunk[512];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (n <= 0) {
            input.setEnabled(false);
            quit();
            return;
        }
        pending.append(chunk, n);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0; pending.remove(0, end + 1)) {
            const QString command = QString::fromUtf8(pending.left(end)).trimmed();
            if (command == QLatin1String("query")) {
                emitLine(query());
            } else if (command.startsWith(QLatin1String("ssid")) && fake) {
                const QString ssid = command.mid(4).trimmed();
                fake->setSsid(ssid.isEmpty() ? std::nullopt : std::optional<QByteArray>(ssid.toUtf8()));
                monitor->ssidDidChangeForWiFiInterfaceWithName(args.at(args.indexOf("--fake-wifi") + 1).section('=', 0, 0));
            } else if (command == QLatin1String("quit")) {
                input.setEnabled(false);
                quit();
                return;
            }
        }
    });
    return app.exec();
}
