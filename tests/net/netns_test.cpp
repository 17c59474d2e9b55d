// The monitor against the real kernel: each test makes its own network namespace with veth
// pairs, runs the monitor in it as a separate process (net_probe, started with `ip netns exec`,
// which also binds /etc/netns/NAME/resolv.conf over /etc/resolv.conf and mounts the namespace's
// own sysfs) and changes addresses, routes and links under it. A separate process rather than
// setns() on a test thread, because the monitor reads the network from its own thread, from
// getifaddrs, sysfs and resolv.conf, and only a process wholly inside the namespace sees all of
// them the same way. Only addresses inside these namespaces are used; nothing is sent anywhere.

#include "support/test_support.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

#include <iostream>
#include <unistd.h>

using namespace std::chrono_literals;
using velocast::test::waitUntil;

namespace {

struct CommandResult {
    int code = -1;
    QString output;
};

CommandResult run(const QStringList &command)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(command.first(), command.mid(1));
    if (!process.waitForFinished(10000)) return {-1, command.join(' ') + ": " + process.errorString()};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromLocal8Bit(process.readAll()).trimmed()};
}

QString etcDir(const QString &ns) { return QStringLiteral("/etc/netns/") + ns; }

// Namespaces of earlier runs of this program that were killed before they could clean up.
void removeStaleNamespaces()
{
    static bool done = false;
    if (std::exchange(done, true)) return;
    for (const QString &line : run({"ip", "netns", "list"}).output.split('\n')) {
        const QString name = line.section(' ', 0, 0);
        const QStringList parts = name.split('-');
        if (parts.size() != 3 || parts[0] != "vcnet") continue;
        if (QFile::exists("/proc/" + parts[1])) continue; // its owner is still running
        run({"ip", "netns", "del", name});
        QDir(etcDir(name)).removeRecursively();
    }
}

class NetNamespace {
public:
    NetNamespace()
    {
        static int counter = 0;
        name_ = QStringLiteral("vcnet-%1-%2").arg(getpid()).arg(++counter);
    }
    ~NetNamespace()
    {
        if (created_) run({"ip", "netns", "del", name_});
        QDir(etcDir(name_)).removeRecursively();
        QDir().rmdir(QStringLiteral("/etc/netns")); // only when no other namespace has files there
    }
    NetNamespace(const NetNamespace &) = delete;
    NetNamespace &operator=(const NetNamespace &) = delete;

    // The reason when the namespace cannot be made, else "".
    QString create()
    {
        const auto result = run({"ip", "netns", "add", name_});
        if (result.code != 0) return result.output.isEmpty() ? "ip netns add failed" : result.output;
        created_ = true;
        ip({"link", "set", "lo", "up"});
        return {};
    }
    const QString &name() const { return name_; }

    // `ip -n NAME args...`, which must succeed.
    void ip(const QStringList &args)
    {
        const auto result = run(QStringList{"ip", "-n", name_} + args);
        EXPECT_EQ(result.code, 0) << "ip " << args.join(' ').toStdString() << ": " << result.output.toStdString();
    }
    void addVethPair(const QString &a, const QString &b)
    {
        ip({"link", "add", a, "type", "veth", "peer", "name", b});
        ip({"link", "set", a, "up"});
        ip({"link", "set", b, "up"});
    }
    int ifindex(const QString &device)
    {
        const auto result = run({"ip", "-n", name_, "-j", "link", "show", "dev", device});
        return QJsonDocument::fromJson(result.output.toUtf8()).array().at(0).toObject().value("ifindex").toInt(-1);
    }
    void writeResolvConf(const QByteArray &text)
    {
        ASSERT_TRUE(QDir().mkpath(etcDir(name_)));
        QFile file(etcDir(name_) + "/resolv.conf");
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    }

private:
    QString name_;
    bool created_ = false;
};

struct Report {
    bool hasNet = false;
    bool isWifi = false;
    QString name;
    QString ip;
    bool operator==(const Report &) const = default;
};

void PrintTo(const Report &r, std::ostream *os)
{
    *os << "(" << r.hasNet << ", " << r.isWifi << ", \"" << r.name.toStdString() << "\", \"" << r.ip.toStdString()
        << "\")";
}

const Report kNoNetwork{false, true, "", ""};

// net_probe running inside a namespace.
class Probe {
public:
    Probe(const NetNamespace &ns, const QStringList &options = {})
    {
        QObject::connect(&process_, &QProcess::readyReadStandardOutput, [this] { readLines(); });
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start("ip", QStringList{"netns", "exec", ns.name(), VELOCAST_NET_PROBE} + options);
        EXPECT_TRUE(process_.waitForStarted(5000)) << process_.errorString().toStdString();
    }
    ~Probe()
    {
        if (process_.state() == QProcess::NotRunning) return;
        process_.kill();
        process_.waitForFinished(5000);
    }

    // Waits until the latest report, later than the first `after` reports, is `expected`.
    bool waitForReport(const Report &expected, std::size_t after = 0)
    {
        const bool seen = waitUntil([&] { return reports_.size() > after && reports_.back() == expected; }, 5s);
        if (!seen && !reports_.empty()) std::cerr << "latest report: " << testing::PrintToString(reports_.back()) << "\n";
        return seen;
    }
    std::size_t reportCount() const { return reports_.size(); }
    bool anyReportOnMainThread() const { return reportOnMainThread_; }

    bool waitForLog(const QString &text)
    {
        return waitUntil([&] { return std::ranges::any_of(logs_, [&](const QString &l) { return l.contains(text); }); }, 5s);
    }

    void send(const QByteArray &command) { process_.write(command + "\n"); }

    // The monitor's class functions, as seen inside the namespace.
    QJsonObject query()
    {
        const auto before = queries_.size();
        send("query");
        if (!waitUntil([&] { return queries_.size() > before; }, 5s)) return {};
        return queries_.back();
    }

    // Asks the probe to destroy the monitor and exit; its exit code.
    int quit()
    {
        send("quit");
        if (!waitUntil([&] { return process_.state() == QProcess::NotRunning; }, 10s)) return -1;
        return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
    }

private:
    void readLines()
    {
        while (process_.canReadLine()) {
            const QJsonObject line = QJsonDocument::fromJson(process_.readLine()).object();
            const QString event = line.value("event").toString();
            if (event == "report") {
                reports_.push_back({line.value("hasNet").toBool(), line.value("isWifi").toBool(),
                                    line.value("name").toString(), line.value("ip").toString()});
                reportOnMainThread_ |= line.value("mainThread").toBool();
            } else if (event == "query") {
                queries_.push_back(line);
            } else if (event == "log") {
                logs_ << line.value("text").toString();
            }
        }
    }

    QProcess process_;
    std::vector<Report> reports_;
    std::vector<QJsonObject> queries_;
    QStringList logs_;
    bool reportOnMainThread_ = false;
};

class NetnsMonitor : public ::testing::Test {
protected:
    void SetUp() override
    {
        removeStaleNamespaces();
        const QString error = ns.create();
        if (error.contains("not permitted", Qt::CaseInsensitive) || error.contains("permission denied", Qt::CaseInsensitive))
            GTEST_SKIP() << "this machine does not allow network namespaces: " << error.toStdString();
        ASSERT_TRUE(error.isEmpty()) << error.toStdString();
    }

    // Runs a change and waits for the report it should bring; prints how long that took.
    void expectReportAfter(Probe &probe, const Report &expected, const std::function<void()> &change)
    {
        const auto before = probe.reportCount();
        change();
        QElapsedTimer clock;
        clock.start();
        EXPECT_TRUE(probe.waitForReport(expected, before)) << "expected " << testing::PrintToString(expected);
        std::cout << "[ latency  ] " << testing::PrintToString(expected) << " after " << clock.elapsed() << " ms\n";
    }

    NetNamespace ns;
};

TEST_F(NetnsMonitor, AddressesRoutesAndLinksComeAndGo)
{
    ns.writeResolvConf("nameserver 10.77.1.1\nsearch corp.example.lan other.lan\n");
    ns.addVethPair("va", "vb");
    Probe probe(ns);
    ASSERT_TRUE(probe.waitForReport(kNoNetwork)) << "an up interface without address or route is no network";

    const Report wired{true, false, "corp.example.lan", "10.77.1.2"};
    expectReportAfter(probe, wired, [&] { ns.ip({"addr", "add", "10.77.1.2/24", "dev", "va"}); });
    // A second address and a default route: still the interface's first address.
    expectReportAfter(probe, wired, [&] {
        ns.ip({"addr", "add", "10.77.1.3/24", "dev", "va"});
        ns.ip({"route", "add", "default", "via", "10.77.1.1", "dev", "va"});
    });
    const QJsonObject facts = probe.query();
    EXPECT_EQ(facts.value("ipV4LastEn").toString(), "10.77.1.3") << "the last address wins there";
    EXPECT_EQ(facts.value("defaultSSIDAndIPV4").toArray(), QJsonArray({"corp.example.lan", "10.77.1.2", false}));
    EXPECT_EQ(facts.value("outPutDNSDomain").toString(), "corp.example.lan");
    EXPECT_TRUE(facts.value("currentWifiSSID").isNull());

    expectReportAfter(probe, kNoNetwork, [&] {
        ns.ip({"route", "del", "default"});
        ns.ip({"addr", "flush", "dev", "va"});
    });
    expectReportAfter(probe, wired, [&] { ns.ip({"addr", "add", "10.77.1.2/24", "dev", "va"}); });
    // The peer going down takes the carrier away: the address stays but is no way out.
    expectReportAfter(probe, kNoNetwork, [&] { ns.ip({"link", "set", "vb", "down"}); });
    expectReportAfter(probe, wired, [&] { ns.ip({"link", "set", "vb", "up"}); });
    expectReportAfter(probe, kNoNetwork, [&] { ns.ip({"link", "del", "va"}); });

    EXPECT_FALSE(probe.anyReportOnMainThread());
    EXPECT_EQ(probe.quit(), 0);
}

TEST_F(NetnsMonitor, PrimaryInterfaceIsTheDefaultRoutesElseTheFirstWithAnAddress)
{
    ns.writeResolvConf("domain lab.internal\n");
    ns.addVethPair("va", "vb");
    ns.addVethPair("vc", "vd");
    // Which of the two gets the lower index is the kernel's business; ask it.
    const bool vaFirst = ns.ifindex("va") < ns.ifindex("vc");
    const QString first = vaFirst ? "va" : "vc";
    const QString second = vaFirst ? "vc" : "va";
    ns.ip({"addr", "add", "10.77.3.2/24", "dev", second});
    ns.ip({"addr", "add", "10.77.2.2/24", "dev", first});

    Probe probe(ns);
    const Report onFirst{true, false, "lab.internal", "10.77.2.2"};
    const Report onSecond{true, false, "lab.internal", "10.77.3.2"};
    ASSERT_TRUE(probe.waitForReport(onFirst)) << "without a default route, the lowest index with an address";

    expectReportAfter(probe, onSecond,
                      [&] { ns.ip({"route", "add", "default", "via", "10.77.3.1", "dev", second, "metric", "200"}); });
    EXPECT_EQ(probe.query().value("ipV4LastEn").toString(), "10.77.3.2");
    expectReportAfter(probe, onFirst,
                      [&] { ns.ip({"route", "add", "default", "via", "10.77.2.1", "dev", first, "metric", "100"}); });
    expectReportAfter(probe, onSecond, [&] { ns.ip({"route", "del", "default", "metric", "100"}); });
    // Its default route is gone with the link; the other interface is left.
    expectReportAfter(probe, onFirst, [&] { ns.ip({"link", "set", second, "down"}); });

    EXPECT_FALSE(probe.anyReportOnMainThread());
    EXPECT_EQ(probe.quit(), 0);
}

TEST_F(NetnsMonitor, WayOutWithoutAddressIsRetriedOffTheMainThread)
{
    ns.writeResolvConf("search retry.test\n");
    ns.addVethPair("va", "vb");
    ns.ip({"route", "add", "default", "dev", "va"});
    // Without the change watch only the once-a-second retry can notice the address.
    Probe probe(ns, {"--no-events"});
    ASSERT_TRUE(probe.waitForLog("no IPv4 address yet"));
    const QJsonObject facts = probe.query();
    EXPECT_EQ(facts.value("defaultSSIDAndIPV4").toArray(), QJsonArray({"", "", false}));
    EXPECT_EQ(facts.value("ipV4LastEn").toString(), "Not connected");
    EXPECT_EQ(probe.reportCount(), 0u);

    expectReportAfter(probe, {true, false, "retry.test", "10.77.4.2"},
                      [&] { ns.ip({"addr", "add", "10.77.4.2/24", "dev", "va"}); });
    EXPECT_FALSE(probe.anyReportOnMainThread());
    EXPECT_EQ(probe.quit(), 0) << "the monitor is destroyed cleanly";
}

// No radio can exist here (mac80211_hwsim cannot be loaded: no modprobe, no kernel modules), so
// the probe's simulated radio says that va is associated; routes and addresses stay real. The
// nl80211 replies themselves are parsed from hand-built bytes in netlink_messages_test.cpp.
TEST_F(NetnsMonitor, WifiReportsItsSsidAndFollowsSsidChanges)
{
    ns.writeResolvConf("search wired.test\n");
    ns.addVethPair("va", "vb");
    ns.ip({"addr", "add", "10.77.5.2/24", "dev", "va"});
    ns.ip({"addr", "add", "10.77.5.3/24", "dev", "va"});

    Probe probe(ns, {"--fake-wifi", "va=Lab-5G"});
    ASSERT_TRUE(probe.waitForReport({true, true, "Lab-5G", "10.77.5.3"})) << "Wi-Fi takes the last address";
    expectReportAfter(probe, {true, true, "Guest 2.4", "10.77.5.3"}, [&] { probe.send("ssid Guest 2.4"); });
    // Still up but no longer associated: named like a wired port.
    expectReportAfter(probe, {true, false, "wired.test", "10.77.5.2"}, [&] { probe.send("ssid"); });
    expectReportAfter(probe, kNoNetwork, [&] { ns.ip({"addr", "flush", "dev", "va"}); });
    EXPECT_EQ(probe.quit(), 0);
}

TEST_F(NetnsMonitor, LoopbackAddressesAreNotConnected)
{
    ns.writeResolvConf("search lo.test\n");
    Probe probe(ns);
    ASSERT_TRUE(probe.waitForReport(kNoNetwork));
    QJsonObject facts = probe.query();
    EXPECT_EQ(facts.value("ipV4LastEn").toString(), "Not connected");
    EXPECT_TRUE(facts.value("defaultSSIDAndIPV4").isNull());
    EXPECT_TRUE(facts.value("currentWifiSSID").isNull());

    // A 127.x address on an ordinary interface is a way out for the report, but never an address
    // to show as this computer's.
    ns.addVethPair("va", "vb");
    expectReportAfter(probe, {true, false, "lo.test", "127.1.2.3"},
                      [&] { ns.ip({"addr", "add", "127.1.2.3/8", "dev", "va"}); });
    EXPECT_EQ(probe.query().value("ipV4LastEn").toString(), "Not connected");
    EXPECT_EQ(probe.quit(), 0);
}

} // namespace
