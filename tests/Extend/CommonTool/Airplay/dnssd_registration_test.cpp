// DNSSDRegistration and AirPlayManager against real avahi-daemons in namespaces of their own.
#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/dnssd_registration.h"
#include "Extend/CommonTool/Airplay/air_play_manager.h"
#include "avahi_test_hosts.h"
#include "support/log_recorder.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <QProcess>

#include <vector>

using namespace velocast;
using namespace velocast::test;
using namespace std::chrono_literals;

namespace {

struct Recorder : DNSSDRegistrationDelegate {
    std::vector<std::string> events;
    int lastError = 0;
    void dnssdRegistrationWillRegister(DNSSDRegistration *) override { events.push_back("will"); }
    void dnssdRegistrationDidRegister(DNSSDRegistration *) override { events.push_back("did"); }
    void dnssdRegistrationDidNotRegister(DNSSDRegistration *, const DNSSDError &e) override
    {
        events.push_back("didNot");
        lastError = e.code;
    }
    void dnssdRegistrationDidStop(DNSSDRegistration *) override { events.push_back("stop"); }
    bool has(const std::string &e) const { return std::find(events.begin(), events.end(), e) != events.end(); }
};

#define NEED_HOSTS(hosts)                                                                                              \
    if (!(hosts).ok()) GTEST_SKIP() << "no private avahi-daemon here (needs root, ip netns, avahi-daemon)"

const TxtRecord kTxt{{QStringLiteral("a"), QStringLiteral("1")}, {QStringLiteral("bb"), QStringLiteral("22")}};

// A registration in "local." on port 7000 with kTxt, reporting to its own recorder.
struct Registration {
    Registration(const char *type, const char *name, const char *host)
        : reg(QStringLiteral("local."), QString::fromLatin1(type), QString::fromUtf8(name), QString::fromLatin1(host), 7000, kTxt)
    {
        reg.setDelegate(&rec);
    }
    bool waitFor(const char *event) { return waitUntil([&] { return rec.has(event); }, 15s); }
    bool startAndWait(const char *event = "did")
    {
        reg.start();
        return waitFor(event);
    }
    Recorder rec;
    DNSSDRegistration reg;
};

} // namespace

// The plain cases (a TXT set, a full address, a name with a space) show in the Avahi tests.
TEST(DNSSDRegistrationWire, TxtAddressAndTarget)
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
        {"192.168.0.20", QByteArray("\xc0\xa8", 2)},
        {"10.0.0.5", QByteArray("\x0a", 1)},
        {"10.77.300.1", QByteArray("\x0a\x4d\x2c\x01", 4)}, // 300 keeps its low 8 bits
        {"1.2", QByteArray("\x01\x02", 2)},
        {"", QByteArray()},
    };
    for (const auto &a : addresses)
        EXPECT_EQ(DNSSDRegistration::addressData(QString::fromLatin1(a.host)), a.data) << a.host;

    EXPECT_EQ(DNSSDRegistration::targetHost(QStringLiteral("a.b"), QStringLiteral("_raop._tcp."), QString()),
        QStringLiteral("a\\.b._raop._tcp."));
}

TEST(DNSSDRegistrationWire, ArgumentsAreNormalisedOrAbort)
{
    DNSSDRegistration local(QStringLiteral("local"), QStringLiteral("_airplay._tcp"), QStringLiteral("n"), 65535);
    EXPECT_EQ(local.domain(), QStringLiteral("local."));
    EXPECT_EQ(local.type(), QStringLiteral("_airplay._tcp."));

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

// What another process sees: SRV target, address, port and the TXT bytes in order; start
// twice publishes once; stop withdraws (the browse stops listing it); start again republishes.
// A zero octet cuts the address record short: Avahi refuses that record, the service stays.
TEST(DNSSDRegistrationAvahi, PublishesWithdrawsAndRepublishes)
{
    AvahiHosts hosts;
    NEED_HOSTS(hosts);
    Registration r("_airplay._tcp.", "Living Room", "192.168.1.20");
    r.reg.start();
    ASSERT_TRUE(r.startAndWait());
    EXPECT_EQ(r.rec.events, (std::vector<std::string>{"will", "did"}));
    EXPECT_EQ(r.reg.registeredDomain(), QStringLiteral("local."));
    EXPECT_EQ(r.reg.registeredName(), QStringLiteral("Living Room"));

    const QStringList lines = browse(hosts.bus(), "_airplay._tcp", true);
    ASSERT_EQ(lines.size(), 1) << lines.join(QLatin1Char('\n')).toStdString();
    // (avahi-browse lists the TXT strings last to first.)
    EXPECT_EQ(lines.first().section(QLatin1Char(';'), 1), QStringLiteral("lo;IPv4;Living\\032Room;_airplay._tcp;local;")
            + QStringLiteral("Living\\032Room._airplay._tcp.local;192.168.1.20;7000;\"bb=22\" \"a=1\""));

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
}

// Failures reach the delegate as did-not-register then did-stop, and leave it stopped.
TEST(DNSSDRegistrationAvahi, ConflictLostDaemonAndNoDaemon)
{
    AvahiHosts hosts;
    NEED_HOSTS(hosts);
    QProcess holder;
    ASSERT_TRUE(startPublisher(holder, hosts.bus(), "Taken", "_airplay._tcp", 7001));
    Registration taken("_airplay._tcp.", "Taken", "10.1.1.1");
    ASSERT_TRUE(taken.startAndWait("stop"));
    EXPECT_EQ(taken.rec.events, (std::vector<std::string>{"didNot", "stop"}));
    EXPECT_EQ(taken.rec.lastError, -65548);
    EXPECT_FALSE(taken.reg.isStarted());

    Registration lost("_airplay._tcp.", "Lost", "10.1.1.1");
    ASSERT_TRUE(lost.startAndWait());
    hosts.killDaemon();
    ASSERT_TRUE(lost.waitFor("stop"));
    EXPECT_EQ(lost.rec.events, (std::vector<std::string>{"will", "did", "didNot", "stop"}));
    EXPECT_EQ(lost.rec.lastError, -65563);
    EXPECT_FALSE(lost.reg.isStarted());

    // With the daemon gone a new start fails at once.
    lost.rec.events.clear();
    lost.reg.start();
    EXPECT_EQ(lost.rec.events, (std::vector<std::string>{"didNot", "stop"}));
    EXPECT_EQ(lost.rec.lastError, -65563);
}

// Published on the loopback interface only: a second machine on the link does not see it,
// though it does see a service published for the network.
TEST(DNSSDRegistrationAvahi, LocalOnlyIsInvisibleToAnotherHost)
{
    AvahiHosts hosts(2);
    NEED_HOSTS(hosts);
    Registration mine("_airplay._tcp.", "Mine", "10.1.1.1");
    ASSERT_TRUE(mine.startAndWait());
    QProcess shared;
    ASSERT_TRUE(startPublisher(shared, hosts.bus(1), "Shared", "_airplay._tcp", 7002));
    ASSERT_TRUE(waitBrowsed(hosts.bus(2), "_airplay._tcp", "Shared"));
    EXPECT_FALSE(browseHas(hosts.bus(2), "_airplay._tcp", "Mine"));
    EXPECT_TRUE(browseHas(hosts.bus(1), "_airplay._tcp", "Mine"));
}

// The manager's result: one call once both registered, one failure call on the first
// failure (later events change nothing), no call and nothing registered without a TXT set.
TEST(AirPlayManagerAvahi, OneResultPerConnect)
{
    AvahiHosts hosts;
    NEED_HOSTS(hosts);
    QProcess holder;
    ASSERT_TRUE(startPublisher(holder, hosts.bus(), "Held@Room", "_raop._tcp", 7001));

    const struct {
        const char *audioName;
        bool withAudioTxt;
        int calls;
        bool success;
        int error;
    } cases[] = {
        {"Free@Room", true, 1, true, 0},
        {"Held@Room", true, 1, false, -65548},
        {"Free@Room", false, 0, false, 0},
    };
    AirPlayManager &m = AirPlayManager::sharedManager();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.audioName);
        int calls = 0;
        bool success = false;
        int error = 0;
        m.connectToAppleTVAirplayName(QStringLiteral("Room"), QString::fromUtf8(c.audioName),
            QStringLiteral("10.1.1.1"), 7000, 7000, kTxt, c.withAudioTxt ? std::optional(kTxt) : std::nullopt,
            [&](bool ok, const std::optional<DNSSDError> &e) {
                ++calls;
                success = ok;
                error = e ? e->code : 0;
            });
        // Wait until both services have answered, whatever the order.
        if (c.calls)
            ASSERT_TRUE(waitUntil([&] { return m.videoFlagValue() != 0 && m.audioFlagValue() != 0; }, 15s));
        else
            EXPECT_FALSE(m.currentVideoRegistration() && m.currentVideoRegistration()->isStarted());
        EXPECT_EQ(calls, c.calls);
        EXPECT_EQ(success, c.success);
        EXPECT_EQ(error, c.error);
        m.disconnect();
    }
}

TEST(AirPlayManager, NamesAndReconfirmData)
{
    AirPlayManager m;
    EXPECT_TRUE(m.audioNameWithDeviceID(QStringLiteral("AA:BB")).isNull()) << "no name yet";
    m.connectToAppleTVAirplayName(QStringLiteral("Room"), QStringLiteral("x"), QStringLiteral("1.2.3.4"), 1, 1,
        std::nullopt, std::nullopt, {});
    EXPECT_EQ(m.audioNameWithDeviceID(QStringLiteral("AA:BB:CC:DD:EE:FF")), QStringLiteral("AABBCCDDEEFF@Room"));
    EXPECT_TRUE(m.audioNameWithDeviceID(QString()).isNull());

    QString recordName;
    const auto data = AirPlayManager::reconfirmRecordData(QStringLiteral("Room._airplay._tcp.local."), &recordName);
    ASSERT_TRUE(data);
    EXPECT_EQ(*data, QByteArray("\x04Room\x08_airplay\x04_tcp\x05local\x00", 26));
    EXPECT_EQ(recordName, QStringLiteral("_airplay._tcp.local."));
    for (const char *bad : {"a._tcp.local.", "Room._airplay._tcp.local", "Room._airplay._sctp.local."})
        EXPECT_FALSE(AirPlayManager::reconfirmRecordData(QString::fromLatin1(bad))) << bad;
    EXPECT_FALSE(AirPlayManager::reconfirmRecordData(QString(64, QLatin1Char('x')) + QStringLiteral("._a._tcp.local.")));
    QString longName = QStringLiteral("Room._a._tcp.");
    for (int i = 0; i < 4; ++i) longName += QString(60, QLatin1Char('x')) + QLatin1Char('.');
    EXPECT_FALSE(AirPlayManager::reconfirmRecordData(longName)) << "258 bytes of data";
    EXPECT_TRUE(AirPlayManager::reconfirmRecordData(longName.left(13 + 3 * 61))) << "196 bytes";
}
