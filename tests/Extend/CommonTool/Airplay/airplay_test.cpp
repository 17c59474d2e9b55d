// DNSSDRegistration, AirPlayManager and the second road's control, against avahi-daemons the
// tests start in network namespaces of their own (avahi_hosts.sh).
#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_registration.h"
#include "Extend/CommonTool/Airplay/air_play_manager.h"
#include "Extend/CommonTool/Airplay/airplay_control.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "support/log_recorder.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <csignal>

using namespace velocast;
using namespace velocast::test;
using namespace std::chrono_literals;

namespace {

// Private mDNS hosts: network namespaces with their own system bus and avahi-daemon, joined
// by veth when there are two. This process talks to host 1.
struct AvahiHosts {
    explicit AvahiHosts(int count = 1) : dir(freshTempDir())
    {
        ok = QProcess::execute("bash", {VELOCAST_AVAHI_HOSTS_SCRIPT, "start", dir, QString::number(count)}) == 0;
        // libavahi-client finds the daemon through the system bus address.
        if (ok) qputenv("DBUS_SYSTEM_BUS_ADDRESS", bus().toUtf8());
    }
    ~AvahiHosts() { QProcess::execute("bash", {VELOCAST_AVAHI_HOSTS_SCRIPT, "stop", dir}); }
    QString bus(int host = 1) const { return read(QStringLiteral("host%1.bus").arg(host)); }
    void killDaemon() const { ::kill(pid_t(read("host1.avahi.pid").toLongLong()), SIGTERM); }
    QString read(const QString &name) const
    {
        QFile f(dir + '/' + name);
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()).trimmed() : QString();
    }
    QString dir;
    bool ok = false;
};

#define NEED_HOSTS(hosts)                                                                                              \
    if (!(hosts).ok) GTEST_SKIP() << "no private avahi-daemon here (needs root, ip netns, avahi-daemon)"

// avahi-browse -t -p (with -r: resolved) for one type, as another process sees it: the lines
// "+;lo;IPv4;name;..." or "=;lo;IPv4;name;type;domain;host;address;port;txt".
QStringList browse(const QString &bus, const QString &type, bool resolve)
{
    QProcess p;
    // Without an address record a resolve never ends: hence the timeout.
    p.start("env", QStringList{"DBUS_SYSTEM_BUS_ADDRESS=" + bus, "timeout", "5", "avahi-browse", "-t", "-p", "-k", type}
                       + (resolve ? QStringList{"-r"} : QStringList{}));
    p.waitForFinished(15000);
    return QString::fromUtf8(p.readAllStandardOutput()).split('\n').filter(QRegularExpression(resolve ? "^=;" : "^\\+;"));
}

// Whether an instance shows in a browse; avahi-browse -p escapes names ("\064" for a byte, "\." for a character).
bool browseHas(const QString &bus, const QString &type, const QString &name)
{
    for (const QString &line : browse(bus, type, false)) {
        const QByteArray in = line.section(';', 3, 3).toUtf8();
        QByteArray out;
        for (qsizetype i = 0; i < in.size(); ++i) {
            if (in[i] == '\\' && i + 3 < in.size() && std::isdigit(uchar(in[i + 1]))) {
                out += char(in.mid(i + 1, 3).toInt());
                i += 3;
            } else {
                out += in[in[i] == '\\' && i + 1 < in.size() ? ++i : i];
            }
        }
        if (QString::fromUtf8(out) == name) return true;
    }
    return false;
}

// Waits until the instance shows, or with present false, until it is gone.
bool waitBrowsed(const QString &bus, const QString &type, const QString &name, bool present = true)
{
    return waitUntil([&] { return browseHas(bus, type, name) == present; }, 20s);
}

// Another process publishing a service until the QProcess ends; true once a browse shows it.
bool startPublisher(QProcess &publisher, const QString &bus, const QString &name, const QString &type, int port)
{
    publisher.start("env", {"DBUS_SYSTEM_BUS_ADDRESS=" + bus, "avahi-publish", "-s", name, type, QString::number(port)});
    return waitBrowsed(bus, type, name);
}

const TxtRecord kTxt{{QStringLiteral("a"), QStringLiteral("1")}, {QStringLiteral("bb"), QStringLiteral("22")}};

// A registration in "local." on port 7000 with kTxt, recording what its delegate hears.
struct Registration : DNSSDRegistrationDelegate {
    Registration(const char *type, const char *name, const char *host)
        : reg(QStringLiteral("local."), QString::fromLatin1(type), QString::fromUtf8(name), QString::fromLatin1(host), 7000, kTxt)
    {
        reg.setDelegate(this);
    }
    void dnssdRegistrationWillRegister(DNSSDRegistration *) override { events.push_back("will"); }
    void dnssdRegistrationDidRegister(DNSSDRegistration *) override { events.push_back("did"); }
    void dnssdRegistrationDidNotRegister(DNSSDRegistration *, const DNSSDError &e) override
    {
        events.push_back("didNot");
        lastError = e.code;
    }
    void dnssdRegistrationDidStop(DNSSDRegistration *) override { events.push_back("stop"); }
    bool waitFor(const char *event)
    {
        return waitUntil([&] { return std::find(events.begin(), events.end(), event) != events.end(); }, 15s);
    }
    bool startAndWait(const char *event = "did")
    {
        reg.start();
        return waitFor(event);
    }
    std::vector<std::string> events;
    int lastError = 0;
    DNSSDRegistration reg;
};

QVariantMap message(const QString &id, const QVariantMap &property)
{
    return {{QStringLiteral("id"), id}, {QStringLiteral("property"), property}};
}

QVariantMap config(const QVariant &airplayTxt, const QVariant &airtunesTxt, const QVariant &port)
{
    QVariantMap p{{QStringLiteral("port"), port}};
    if (airplayTxt.isValid()) p.insert(QStringLiteral("airplay_txt"), airplayTxt);
    if (airtunesTxt.isValid()) p.insert(QStringLiteral("airtunes_txt"), airtunesTxt);
    return message(QStringLiteral("id_airplay_config"), p);
}

void receive(const QVariantMap &msg)
{
    NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NETCONTROL_RECEIVE), msg);
}

const QString kName = QStringLiteral("Korvane无线投屏");
const QVariantMap kAirplayTxt{{QStringLiteral("deviceid"), QStringLiteral("02:56:43:00:00:01")},
    {QStringLiteral("model"), QStringLiteral("R1,1")}};
const QVariantMap kAirtunesTxt{{QStringLiteral("tp"), QStringLiteral("UDP")}, {QStringLiteral("ch"), QStringLiteral("2")}};

} // namespace

// The plain cases (a TXT set, a full address, a name with a space, an address with a zero
// octet) show in the Avahi tests.
TEST(DNSSDRegistrationWire, TxtAddressTargetAndNormalisedArguments)
{
    EXPECT_EQ(DNSSDRegistration::txtData(std::nullopt), QByteArray());
    // The length byte counts UTF-16 units (kept as the wire rule); "é" is 1 unit, 2 bytes.
    EXPECT_EQ(DNSSDRegistration::txtData(TxtRecord{{QStringLiteral("k"), QStringLiteral("é")}}),
        QByteArray("\x03k=\xc3\xa9", 5));

    // Five entries of 251 bytes: four fill 1,004 bytes, the fifth would pass 1,024 and is left out;
    // an entry over 255 bytes never fits a TXT string.
    TxtRecord big;
    for (char c : {'a', 'b', 'c', 'd', 'e'}) big.insert(QString(QChar(c)), QString(248, QLatin1Char('x')));
    big.insert(QStringLiteral("0"), QString(300, QLatin1Char('y')));
    const QByteArray data = DNSSDRegistration::txtData(big);
    EXPECT_EQ(data.size(), 4 * 251);
    EXPECT_EQ(data.left(3), QByteArray("\xfa" "a="));

    const struct {
        const char *host;
        QByteArray data;
    } addresses[] = {
        {"10.77.300.1", QByteArray("\x0a\x4d\x2c\x01", 4)}, // 300 keeps its low 8 bits
        {"1.2", QByteArray("\x01\x02", 2)},
        {"", QByteArray()},
    };
    for (const auto &a : addresses)
        EXPECT_EQ(DNSSDRegistration::addressData(QString::fromLatin1(a.host)), a.data) << a.host;

    EXPECT_EQ(DNSSDRegistration::targetHost(QStringLiteral("a.b"), QStringLiteral("_raop._tcp."), QString()),
        QStringLiteral("a\\.b._raop._tcp."));
    DNSSDRegistration local(QStringLiteral("local"), QStringLiteral("_airplay._tcp"), QStringLiteral("n"), 65535);
    EXPECT_EQ(local.domain(), QStringLiteral("local."));
    EXPECT_EQ(local.type(), QStringLiteral("_airplay._tcp."));
}

// Arguments a caller must never pass abort with the condition and where it failed.
TEST(DNSSDRegistrationWire, BadArgumentsAbortNamingTheCondition)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char *domain, *type;
        qint64 port;
        const char *condition;
    } bad[] = {
        {".local.", "_airplay._tcp.", 7000, R"(! \[domain hasPrefix:@"\."\])"},
        {"local.", nullptr, 7000, R"(type != nil)"},
        {"local.", "", 7000, R"(\[type length\] != 0)"},
        {"local.", "._airplay._tcp.", 7000, R"(! \[type hasPrefix:@"\."\])"},
        {"local.", "_airplay._tcp.", 0, R"(port > 0)"},
        {"local.", "_airplay._tcp.", 65536, R"(port < 65536)"},
    };
    for (const auto &b : bad) {
        const QString type = b.type ? QString::fromLatin1(b.type) : QString();
        EXPECT_DEATH(DNSSDRegistration(QString::fromLatin1(b.domain), type, QStringLiteral("n"), b.port),
            std::string("Extend/CommonTool/Airplay/AirplayDNSRegistration/DNSSDRegistration.*\n.*") + b.condition)
            << b.condition;
    }
    DNSSDRegistration r(QStringLiteral("local."), QStringLiteral("_airplay._tcp."), QStringLiteral("n"), 7000);
    EXPECT_DEATH(r.didRegisterWithDomain(QStringLiteral("local"), QStringLiteral("n")),
        R"(\[domain caseInsensitiveCompare:@"local"\] != NSOrderedSame)");
}

// What another process sees: SRV target, address, port and the TXT bytes in order, on this
// machine only (a second host on the link does not see it, though it sees a service published
// for the network); start twice publishes once; stop withdraws; start again republishes. A zero
// octet cuts the address record short: Avahi refuses that record, the service stays. A name taken
// by another process: the manager makes one failure call once both services answered (later
// events change nothing). A lost daemon reaches the delegate as did-not-register then did-stop.
TEST(DNSSDRegistrationAvahi, PublishesWithdrawsConflictsAndLosesTheDaemon)
{
    AvahiHosts hosts(2);
    NEED_HOSTS(hosts);
    Registration r("_airplay._tcp.", "Living Room", "192.168.1.20");
    r.reg.start();
    ASSERT_TRUE(r.startAndWait());
    EXPECT_EQ(r.events, (std::vector<std::string>{"will", "did"}));
    EXPECT_EQ(r.reg.registeredDomain(), QStringLiteral("local."));
    EXPECT_EQ(r.reg.registeredName(), QStringLiteral("Living Room"));

    const QStringList lines = browse(hosts.bus(), "_airplay._tcp", true);
    ASSERT_EQ(lines.size(), 1) << lines.join('\n').toStdString();
    // (avahi-browse lists the TXT strings last to first.)
    EXPECT_EQ(lines.first().section(';', 1), QStringLiteral("lo;IPv4;Living\\032Room;_airplay._tcp;local;")
            + QStringLiteral("Living\\032Room._airplay._tcp.local;192.168.1.20;7000;\"bb=22\" \"a=1\""));
    QProcess shared;
    ASSERT_TRUE(startPublisher(shared, hosts.bus(1), "Shared", "_airplay._tcp", 7002));
    ASSERT_TRUE(waitBrowsed(hosts.bus(2), "_airplay._tcp", "Shared"));
    EXPECT_FALSE(browseHas(hosts.bus(2), "_airplay._tcp", "Living Room"));

    r.reg.stop();
    EXPECT_EQ(r.reg.registeredName(), QString());
    EXPECT_TRUE(waitBrowsed(hosts.bus(), "_airplay._tcp", "Living Room", false));
    ASSERT_TRUE(r.startAndWait());
    EXPECT_TRUE(browseHas(hosts.bus(), "_airplay._tcp", "Living Room"));

    LogRecorder log;
    Registration zero("_raop._tcp.", "Zero", "192.168.0.20");
    ASSERT_TRUE(zero.startAndWait());
    EXPECT_EQ(log.count(QStringLiteral("add record error")), 1);
    EXPECT_TRUE(browseHas(hosts.bus(), "_raop._tcp", "Zero"));
    EXPECT_TRUE(browse(hosts.bus(), "_raop._tcp", true).isEmpty()) << "resolved without an address record";

    QProcess holder;
    ASSERT_TRUE(startPublisher(holder, hosts.bus(), "Held@Room", "_raop._tcp", 7001));
    AirPlayManager &m = AirPlayManager::sharedManager();
    std::vector<int> results; // the error of each call, 0 for success
    m.connectToAppleTVAirplayName(QStringLiteral("Room"), QStringLiteral("Held@Room"), QStringLiteral("10.1.1.1"), 7000, 7000,
        kTxt, kTxt, [&](bool ok, const std::optional<DNSSDError> &e) { results.push_back(ok ? 0 : e ? e->code : 1); });
    ASSERT_TRUE(waitUntil([&] { return m.videoFlagValue() != 0 && m.audioFlagValue() != 0; }, 15s));
    EXPECT_EQ(results, std::vector<int>{-65548});
    m.disconnect();

    Registration lost("_airplay._tcp.", "Lost", "10.1.1.1");
    ASSERT_TRUE(lost.startAndWait());
    hosts.killDaemon();
    ASSERT_TRUE(lost.waitFor("stop"));
    EXPECT_EQ(lost.events, (std::vector<std::string>{"will", "did", "didNot", "stop"}));
    EXPECT_EQ(lost.lastError, -65563);
    EXPECT_FALSE(lost.reg.isStarted());
    // With the daemon gone a new start fails at once.
    lost.events.clear();
    lost.reg.start();
    EXPECT_EQ(lost.events, (std::vector<std::string>{"didNot", "stop"}));
    EXPECT_EQ(lost.lastError, -65563);
}

TEST(AirplayControlData, ReceiverTxtIsChecked)
{
    QVariantMap huge;
    for (int i = 0; i < 20000; ++i) huge.insert(QStringLiteral("k%1").arg(i), QStringLiteral("v"));
    const struct {
        const char *what;
        QVariant value;
        std::optional<int> kept; // nullopt: not a dictionary
    } cases[] = {
        {"good", kAirplayTxt, 2},
        {"number value", QVariantMap{{QStringLiteral("a"), 1}, {QStringLiteral("b"), QStringLiteral("x")}}, 1},
        {"nested value", QVariantMap{{QStringLiteral("a"), QVariantMap{}}, {QStringLiteral("b"), QVariantList{}}}, 0},
        {"= in key", QVariantMap{{QStringLiteral("a=b"), QStringLiteral("x")}}, 0},
        {"control char in key", QVariantMap{{QStringLiteral("a\nb"), QStringLiteral("x")}}, 0},
        {"empty key", QVariantMap{{QString(), QStringLiteral("x")}}, 0},
        {"non-ASCII value", QVariantMap{{QStringLiteral("n"), QStringLiteral("无线")}}, 0},
        {"huge", huge, 20000},
        {"string", QStringLiteral("deviceid=1"), std::nullopt},
        {"list", QVariantList{1, 2}, std::nullopt},
        {"missing", QVariant(), std::nullopt},
    };
    for (const auto &c : cases) {
        const auto txt = AirplayControl::checkedTxt(c.value, QStringLiteral("airplay_txt"));
        EXPECT_EQ(txt ? std::optional<int>(int(txt->size())) : std::nullopt, c.kept) << c.what;
    }
}

// Start → request; a bad config registers nothing; config → both services on this machine;
// type 1 leaves them; type 2 withdraws them and tells the panel; a config without deviceid
// advertises the audio service as "@<name>". (The panel's stop runs in the end-to-end test.)
TEST(AirplayControlAvahi, RoadStartsAdvertisesAndEnds)
{
    AvahiHosts hosts;
    NEED_HOSTS(hosts);
    auto &center = NotificationCenter::defaultCenter();
    QVariantList sent;
    int beStop = 0;
    Observation sendObs = center.addObserver(QString::fromLatin1(notice::NETCONTROL_SEND), [&](const QVariant &o) { sent << o; });
    Observation stopObs = center.addObserver(QString::fromLatin1(notice::NOTICE_BESTOP_AIRPLAY), [&](const QVariant &) { ++beStop; });
    AirplayControl &control = AirplayControl::shareControl();
    control.setIpStr(QStringLiteral("10.77.1.1"));
    const QString bus = hosts.bus();
    const QString audioName = QStringLiteral("025643000001@") + kName;
    const auto registered = [] { return AirPlayManager::sharedManager().currentVideoRegistration() != nullptr; };

    receive(config(kAirplayTxt, kAirtunesTxt, 7000));
    EXPECT_FALSE(registered()) << "not listening yet";
    center.post(QString::fromLatin1(notice::AIRPLAYCONTROL_START));
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent.at(0).toMap(), message(QStringLiteral("id_permission_request"), {{QStringLiteral("type"), 2}}));
    // Receiver data that must not be advertised; without the audio TXT nothing is registered.
    for (const QVariant &port : {QVariant(0), QVariant(65536), QVariant(QStringLiteral("http")), QVariant()}) {
        receive(config(kAirplayTxt, kAirtunesTxt, port));
        EXPECT_FALSE(registered()) << port.toString().toStdString();
    }
    receive(config(kAirplayTxt, QVariant(), 7000));
    EXPECT_FALSE(registered());

    receive(config(kAirplayTxt, kAirtunesTxt, QStringLiteral("7000")));
    ASSERT_TRUE(waitBrowsed(bus, "_airplay._tcp", kName) && waitBrowsed(bus, "_raop._tcp", audioName));
    EXPECT_TRUE(browse(bus, "_raop._tcp", true).join('\n').contains(";10.77.1.1;7000;")) << "resolves to the receiver";
    receive(message(QStringLiteral("id_permission_disconnect"), {{QStringLiteral("type"), 1}}));
    receive(message(QStringLiteral("id_airplay_screen_succeed"), {}));
    EXPECT_TRUE(browseHas(bus, "_raop._tcp", audioName));
    EXPECT_EQ(beStop, 0);
    receive(message(QStringLiteral("id_permission_disconnect"), {{QStringLiteral("type"), QStringLiteral("2")}}));
    EXPECT_EQ(beStop, 1);
    EXPECT_FALSE(control.isListening());
    EXPECT_TRUE(waitBrowsed(bus, "_airplay._tcp", kName, false) && waitBrowsed(bus, "_raop._tcp", audioName, false));

    center.post(QString::fromLatin1(notice::AIRPLAYCONTROL_START));
    receive(config(QVariantMap{{QStringLiteral("model"), QStringLiteral("R1,1")}}, kAirtunesTxt, 7000));
    EXPECT_TRUE(waitBrowsed(bus, "_raop._tcp", QStringLiteral("@") + kName));
    center.post(QString::fromLatin1(notice::AIRPLAYCONTROL_STOP));
}
