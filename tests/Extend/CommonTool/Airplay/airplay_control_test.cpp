// The second road's control: notifications in and out, the receiver's data checked, and the
// services as another process sees them on a private avahi-daemon.
#include "Extend/CommonTool/Airplay/air_play_manager.h"
#include "Extend/CommonTool/Airplay/airplay_control.h"
#include "avahi_test_hosts.h"
#include "common/notification_center.h"
#include "common/notification_names.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

using namespace velocast;
using namespace velocast::test;

namespace {

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

// Start → request; config → both services on this machine; type 1 leaves them; type 2
// withdraws them and tells the panel; messages while not listening do nothing; a bad config
// registers nothing; stop → disconnect message and withdrawal.
TEST(AirplayControlAvahi, RoadStartsAdvertisesAndEnds)
{
    AvahiHosts hosts;
    if (!hosts.ok()) GTEST_SKIP() << "no private avahi-daemon here";
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
    const auto withdrawn = [&] { return browse(bus, "_airplay._tcp", false).isEmpty() && browse(bus, "_raop._tcp", false).isEmpty(); };

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
    receive(message(QStringLiteral("id_permission_disconnect"), {{QStringLiteral("type"), 1}}));
    receive(message(QStringLiteral("id_airplay_screen_succeed"), {}));
    EXPECT_TRUE(browseHas(bus, "_raop._tcp", audioName));
    EXPECT_EQ(beStop, 0);
    receive(message(QStringLiteral("id_permission_disconnect"), {{QStringLiteral("type"), QStringLiteral("2")}}));
    EXPECT_EQ(beStop, 1);
    EXPECT_FALSE(control.isListening());
    EXPECT_TRUE(waitUntil(withdrawn, std::chrono::seconds(20)));

    // A config without deviceid still advertises, under "@<name>" for the audio service;
    // the panel's stop sends the disconnect and withdraws.
    center.post(QString::fromLatin1(notice::AIRPLAYCONTROL_START));
    receive(config(QVariantMap{{QStringLiteral("model"), QStringLiteral("R1,1")}}, kAirtunesTxt, 7000));
    ASSERT_TRUE(waitBrowsed(bus, "_raop._tcp", QStringLiteral("@") + kName));
    sent.clear();
    center.post(QString::fromLatin1(notice::AIRPLAYCONTROL_STOP));
    ASSERT_EQ(sent.size(), 1);
    EXPECT_EQ(sent.at(0).toMap(), message(QStringLiteral("id_permission_disconnect"), {{QStringLiteral("type"), 2}}));
    EXPECT_TRUE(waitUntil(withdrawn, std::chrono::seconds(20)));
}
