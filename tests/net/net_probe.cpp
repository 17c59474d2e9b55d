// Runs the network monitor where it was started and prints JSON lines: "report" per block call,
// "query" with the class functions, "log" per log line.
// Usage: net_probe [--fake-wifi IFNAME=SSID (a simulated radio)]
// Standard input: "query"; "ssid [NAME]" (associate the radio, then the SSID-change event); "quit".

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

void print(const QJsonObject &object)
{
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::puts(QJsonDocument(object).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

// The real platform, except that one interface is a Wi-Fi interface.
class SimulatedRadio final : public velocast::NetworkPlatform {
public:
    SimulatedRadio(QString name, QByteArray ssid) : name_(std::move(name)), ssid_(std::move(ssid)) {}
    void associate(std::optional<QByteArray> ssid)
    {
        std::lock_guard lock(mutex_);
        ssid_ = std::move(ssid);
    }
    std::vector<velocast::WifiInterface> wifiInterfaces() const override
    {
        std::lock_guard lock(mutex_);
        return {{name_, ssid_}};
    }
    std::optional<velocast::RouteState> routeState() const override { return real_.routeState(); }
    QString resolverDefaultDomain() const override { return real_.resolverDefaultDomain(); }
    std::unique_ptr<velocast::NetworkChangeSource> openChangeSource(QString *error) const override
    {
        return real_.openChangeSource(error);
    }
    const QString name_;

private:
    const velocast::NetworkPlatform &real_ = velocast::networkPlatform();
    mutable std::mutex mutex_;
    std::optional<QByteArray> ssid_;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    std::unique_ptr<SimulatedRadio> radio;
    if (const auto at = args.indexOf("--fake-wifi"); at > 0 && at + 1 < args.size())
        radio = std::make_unique<SimulatedRadio>(args[at + 1].section('=', 0, 0), args[at + 1].section('=', 1).toUtf8());
    velocast::setLogTap([](const char *, const QString &text) { print({{"event", "log"}, {"text", text}}); });

    auto monitor = radio ? std::make_unique<MacNetCheck>(*radio) : std::make_unique<MacNetCheck>();
    monitor->setWifiStateBlock([](bool hasNet, bool isWifi, const QString &name, const QString &ip) {
        print({{"event", "report"}, {"hasNet", hasNet}, {"isWifi", isWifi}, {"name", name}, {"ip", ip},
               {"mainThread", velocast::isMainThread()}});
    });
    monitor->checkWiFiState();

    QByteArray input;
    QSocketNotifier stdinNotifier(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&stdinNotifier, &QSocketNotifier::activated, &app, [&] {
        char chunk[512];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
        input.append(n > 0 ? QByteArray(chunk, n) : QByteArray("quit\n"));
        for (qsizetype end; monitor && (end = input.indexOf('\n')) >= 0; input.remove(0, end + 1)) {
            const QString command = QString::fromUtf8(input.left(end)).trimmed();
            if (command == "query") {
                const QVariantList info = MacNetCheck::defaultSSIDAndIPV4();
                const QString ssid = MacNetCheck::currentWifiSSID();
                print({{"event", "query"}, {"ipV4LastEn", MacNetCheck::ipV4LastEn()},
                       {"currentWifiSSID", ssid.isNull() ? QJsonValue() : ssid},
                       {"defaultSSIDAndIPV4", info.isEmpty() ? QJsonValue() : QJsonArray::fromVariantList(info)},
                       {"outPutDNSDomain", MacNetCheck::outPutDNSDomain()}});
            } else if (command.startsWith("ssid") && radio) {
                const QByteArray ssid = command.mid(4).trimmed().toUtf8();
                radio->associate(ssid.isEmpty() ? std::nullopt : std::optional(ssid));
                monitor->ssidDidChangeForWiFiInterfaceWithName(radio->name_);
            } else if (command == "quit") {
                stdinNotifier.setEnabled(false);
                monitor.reset(); // no report after this
                app.quit();
            }
        }
    });
    return app.exec();
}
