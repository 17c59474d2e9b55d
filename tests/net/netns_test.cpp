// The monitor against the real kernel: each test makes its own network namespace with veth pairs,
// runs the monitor wholly inside it (net_probe under `ip netns exec`, which also binds
// /etc/netns/NAME/resolv.conf) and changes addresses, routes and links under it. Nothing is sent.
#include "support/test_support.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace std::chrono_literals;
using velocast::test::waitUntil;

namespace {

// Exit code (-1: did not run to the end) and merged output.
std::pair<int, QString> run(const QStringList &command)
{
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(command.first(), command.mid(1));
    if (!p.waitForFinished(10000) || p.exitStatus() != QProcess::NormalExit) return {-1, p.errorString()};
    return {p.exitCode(), QString::fromLocal8Bit(p.readAll()).trimmed()};
}

class NetNamespace {
public:
    NetNamespace() : name_(QStringLiteral("vcnet-%1-%2").arg(getpid()).arg(++count_)) {}
    ~NetNamespace()
    {
        run({"ip", "netns", "del", name_});
        QDir("/etc/netns/" + name_).removeRecursively();
        QDir().rmdir("/etc/netns"); // only when nobody else has a namespace file there
    }

    // "" when made, else why not.
    QString create()
    {
        const auto [code, output] = run({"ip", "netns", "add", name_});
        if (code == 0) ip({"link", "set", "lo", "up"});
        return code == 0 ? QString() : output;
    }
    const QString &name() const { return name_; }
    void ip(const QStringList &args)
    {
        const auto [code, output] = run(QStringList{"ip", "-n", name_} + args);
        EXPECT_EQ(code, 0) << "ip " << args.join(' ').toStdString() << ": " << output.toStdString();
    }
    void addVethPair(const QString &a, const QString &b)
    {
        ip({"link", "add", a, "type", "veth", "peer", "name", b});
        ip({"link", "set", a, "up"});
        ip({"link", "set", b, "up"});
    }
    void writeResolvConf(const QByteArray &text)
    {
        QFile file("/etc/netns/" + name_ + "/resolv.conf");
        // Another test's clean-up may remove an empty /etc/netns between mkpath and open.
        for (int attempt = 0; attempt < 3 && !file.isOpen(); ++attempt) {
            QDir().mkpath("/etc/netns/" + name_);
            file.open(QIODevice::WriteOnly);
        }
        ASSERT_EQ(file.write(text), text.size()) << file.errorString().toStdString();
    }

private:
    static inline int count_ = 0;
    QString name_;
};

using Report = std::tuple<bool, bool, QString, QString>; // hasNet, isWifi, name, ip
const Report kNoNetwork{false, true, "", ""};

// net_probe inside a namespace: its reports, query answers and log lines.
class Probe {
public:
    explicit Probe(const NetNamespace &ns, const QStringList &options = {})
    {
        QObject::connect(&process_, &QProcess::readyReadStandardOutput, [this] {
            while (process_.canReadLine()) {
                const QJsonObject o = QJsonDocument::fromJson(process_.readLine()).object();
                const QString event = o.value("event").toString();
                if (event == "report") {
                    reports.emplace_back(o["hasNet"].toBool(), o["isWifi"].toBool(), o["name"].toString(), o["ip"].toString());
                    anyOnMainThread |= o["mainThread"].toBool();
                }
                if (event == "query") queries.push_back(o);
                if (event == "log") logs << o["text"].toString();
            }
        });
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start("ip", QStringList{"netns", "exec", ns.name(), VELOCAST_NET_PROBE} + options);
    }
    ~Probe()
    {
        process_.kill();
        process_.waitForFinished(5000);
    }
    // Waits until the latest report, beyond the first `after`, is `expected`.
    bool waitForReport(const Report &expected, std::size_t after = 0)
    {
        return waitUntil([&] { return reports.size() > after && reports.back() == expected; }, 5s);
    }
    void send(const QByteArray &command) { process_.write(command + "\n"); }
    QJsonObject query()
    {
        const auto before = queries.size();
        send("query");
        return waitUntil([&] { return queries.size() > before; }) ? queries.back() : QJsonObject();
    }
    // Destroys the monitor and exits; the exit code (non-zero also for leaks under ASan).
    int quit()
    {
        send("quit");
        if (!waitUntil([&] { return process_.state() == QProcess::NotRunning; }, 10s)) return -1;
        return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
    }

    std::vector<Report> reports;
    std::vector<QJsonObject> queries;
    QStringList logs;
    bool anyOnMainThread = false;

private:
    QProcess process_;
};

class NetnsMonitor : public ::testing::Test {
protected:
    void SetUp() override
    {
        const QString error = ns.create();
        if (error.contains("not permitted", Qt::CaseInsensitive) || error.contains("permission denied", Qt::CaseInsensitive))
            GTEST_SKIP() << "this machine does not allow network namespaces: " << error.toStdString();
        ASSERT_TRUE(error.isEmpty()) << error.toStdString();
    }
    // Makes a change and expects a fresh report of it.
    void expectReportAfter(Probe &probe, const Report &expected, const std::function<void()> &change)
    {
        const auto before = probe.reports.size();
        change();
        EXPECT_TRUE(probe.waitForReport(expected, before)) << testing::PrintToString(expected);
    }
    NetNamespace ns;
};

TEST_F(NetnsMonitor, AddressesRoutesAndLinksComeAndGoAndPickThePrimary)
{
    ns.writeResolvConf("nameserver 10.77.1.1\nsearch corp.example.lan other.lan\n");
    ns.addVethPair("va", "vb");
    Probe probe(ns);
    ASSERT_TRUE(probe.waitForReport(kNoNetwork)) << "an up interface without address or route is no way out";
    QJsonObject facts = probe.query();
    EXPECT_EQ(facts["ipV4LastEn"], "Not connected");
    EXPECT_TRUE(facts["defaultSSIDAndIPV4"].isNull());

    const Report wired{true, false, "corp.example.lan", "10.77.1.2"};
    expectReportAfter(probe, wired, [&] { ns.ip({"addr", "add", "10.77.1.2/24", "dev", "va"}); });
    expectReportAfter(probe, wired, [&] {
        ns.ip({"addr", "add", "10.77.1.3/24", "dev", "va"});
        ns.ip({"route", "add", "default", "via", "10.77.1.1"});
    });
    facts = probe.query();
    EXPECT_EQ(facts["ipV4LastEn"], "10.77.1.3") << "the last address";
    EXPECT_EQ(facts["defaultSSIDAndIPV4"].toArray(), QJsonArray({"corp.example.lan", "10.77.1.2", false}));
    EXPECT_TRUE(facts["currentWifiSSID"].isNull());

    expectReportAfter(probe, kNoNetwork, [&] {
        ns.ip({"route", "del", "default"});
        ns.ip({"addr", "flush", "dev", "va"});
    });
    expectReportAfter(probe, wired, [&] { ns.ip({"addr", "add", "10.77.1.2/24", "dev", "va"}); });
    // No carrier once the peer is down: the address stays, the way out does not.
    expectReportAfter(probe, kNoNetwork, [&] { ns.ip({"link", "set", "vb", "down"}); });
    expectReportAfter(probe, wired, [&] { ns.ip({"link", "set", "vb", "up"}); });

    // The primary interface is the default route's, else the first with an address (a fresh
    // namespace numbers its links in order: va < vc).
    ns.addVethPair("vc", "vd");
    ns.ip({"addr", "add", "10.77.3.2/24", "dev", "vc"});
    const Report onSecond{true, false, "corp.example.lan", "10.77.3.2"};
    expectReportAfter(probe, onSecond, [&] { ns.ip({"route", "add", "default", "via", "10.77.3.1"}); });
    EXPECT_EQ(probe.query()["ipV4LastEn"], "10.77.3.2");
    expectReportAfter(probe, wired, [&] { ns.ip({"link", "set", "vc", "down"}); });
    EXPECT_FALSE(probe.anyOnMainThread);
    EXPECT_EQ(probe.quit(), 0);
}

// No radio can exist here (no modprobe for mac80211_hwsim), so the probe says va is associated;
// routes and addresses stay real. nl80211 replies are parsed from hand-built bytes in
// netlink_messages_test.cpp.
TEST_F(NetnsMonitor, WifiReportsItsSsidAndFollowsSsidChanges)
{
    ns.writeResolvConf("search wired.test\n");
    ns.addVethPair("va", "vb");
    ns.ip({"addr", "add", "10.77.5.2/24", "dev", "va"});
    ns.ip({"addr", "add", "10.77.5.3/24", "dev", "va"});
    Probe probe(ns, {"--fake-wifi", "va=Lab-5G"});
    ASSERT_TRUE(probe.waitForReport({true, true, "Lab-5G", "10.77.5.3"})) << "Wi-Fi takes the last address";
    expectReportAfter(probe, {true, true, "Guest 2.4", "10.77.5.3"}, [&] { probe.send("ssid Guest 2.4"); });
    // Up but no longer associated: named like a wired port.
    expectReportAfter(probe, {true, false, "wired.test", "10.77.5.2"}, [&] { probe.send("ssid"); });
    EXPECT_FALSE(probe.anyOnMainThread);
    EXPECT_EQ(probe.quit(), 0);
}

} // namespace
