#include "control/connection_session.h"

#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "support/loopback_peer.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QThread>

#include <gtest/gtest.h>

using namespace velocast;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

const QString kWrongCode = QStringLiteral("连接码错误或与接收端不在同一网络");
const QString kFull = QStringLiteral("传屏已投满请稍后重试");
const QString kDeclined = QStringLiteral("接收端未同意你的请求");

// Records what the session asks of the window; fails if asked off the main thread.
struct FakeView : ConnectionSessionView {
    template <typename T> static T onMain(T value)
    {
        EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread());
        return value;
    }
    void reSetTextFields() override { resets += onMain(1); }
    void setLoadingVisible(bool l) override { loading = onMain(l); }
    void setTipVisible(bool v, const QString &t) override
    {
        tipVisible = onMain(v);
        if (v) tips.push_back(t);
    }
    void showCastingPanel(const QString &name) override { panel = onMain(name); }
    void setCastingPanelName(const QString &name) override { panel = onMain(name); }
    void removeCastingPanel() override { panel = onMain(std::optional<QString>()); }
    int resets = 0;
    bool loading = false;
    bool tipVisible = false;
    std::vector<QString> tips; // every tip shown
    std::optional<QString> panel; // the casting panel's name while it is shown
};

// Counts the session's own notifications and keeps their objects.
struct SessionNotices {
    SessionNotices()
    {
        auto &c = NotificationCenter::defaultCenter();
        obs.push_back(c.addObserver(notice::NOTICE_BEDISCONNECT, [this](const QVariant &) { ++beDisconnect; }));
        obs.push_back(c.addObserver(notice::NOTICE_SHOWREQUESTVIEW, [this](const QVariant &) { ++showRequest; }));
        obs.push_back(c.addObserver(notice::NOTICE_SCREENCAPTURESTATE, [this](const QVariant &v) { states.push_back(v.toList()); }));
    }
    int beDisconnect = 0;
    int showRequest = 0;
    std::vector<QVariantList> states;
    std::vector<Observation> obs;
};

// A session wired to a reference receiver (or to nothing) on loopback, "127.0.0.1" our address.
struct Rig {
    explicit Rig(QStringList receiverArgs = {}, std::optional<uint16_t> port = {}) : receiver(receiverArgs)
    {
        started = !port && ReferenceReceiver::available() && receiver.start();
        control.setControlPort(port ? *port : receiver.controlPort());
        session.setIpStr("127.0.0.1");
        control.setLocalIPStr("127.0.0.1");
    }
    // Types the receiver's code and waits until the admission request arrived.
    bool connect()
    {
        session.textCode(receiver.code());
        return receiver.waitForEvent("message_received",
            [](const QJsonObject &e) { return e.value("id").toString() == "id_connect_request"; });
    }
    bool command(const QString &line, const std::function<bool()> &until)
    {
        receiver.command(line);
        return waitUntil(until, 10s);
    }
    ReferenceReceiver receiver;
    bool started = false;
    NetControl control;
    FakeView view;
    ConnectionSession session{view, control};
    SessionNotices notices;
};

#define REQUIRE_RECEIVER(rig)                                                                                          \
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";                     \
    ASSERT_TRUE((rig).started) << (rig).receiver.error().toStdString()

// One admission from request to panel: refusals, the allow, permission answers, other parts' requests.
TEST(ConnectionSession, AdmissionRefusalsPermissionsAndRequests)
{
    MsgHeart::setTickInterval(100ms);
    SaveDisplayName(QStringLiteral("书房电脑"));
    Rig rig({"--admit", "manual", "--safe-code", "9"});
    REQUIRE_RECEIVER(rig);
    ASSERT_TRUE(rig.connect());
    ASSERT_TRUE(waitUntil([&] { return rig.view.loading && rig.view.resets >= 1; }));
    const QJsonObject property = rig.receiver.received("id_connect_request").value(0).value("property").toObject();
    EXPECT_EQ(property.value("name").toString(), QStringLiteral("书房电脑"));
    EXPECT_EQ(property.value("safe_code"), QJsonValue("9")) << "a decimal string";
    EXPECT_EQ(property.value("ip").toString(), "127.0.0.1");

    const std::vector<std::pair<QString, QString>> refusals{
        {"refuse 1", kFull},
        {"refuse 2", kDeclined},
        {R"(send id_connect_refuse {"msg":"2"})", kDeclined}, // a numeric string
        {R"(send id_connect_refuse {})", QStringLiteral("连接失败")}, // missing reads as 0
    };
    for (const auto &[command, text] : refusals) {
        const size_t before = rig.view.tips.size();
        ASSERT_TRUE(rig.command(command, [&] { return rig.view.tips.size() == before + 1; })) << command.toStdString();
        EXPECT_EQ(rig.view.tips.back(), text) << command.toStdString();
        EXPECT_FALSE(rig.view.loading);
    }
    ASSERT_TRUE(rig.control.stream());
    EXPECT_TRUE(rig.control.stream()->isConnected()) << "a refusal leaves closing to the receiver";
    EXPECT_EQ(rig.receiver.count("heartbeat"), 0) << "no heartbeat before admission";
    rig.view.tips.clear();

    // "id_rename" before the allow sets the name, which the allow then overwrites.
    ASSERT_TRUE(rig.command("rename 先来的名字", [&] { return rig.session.pcName() == QStringLiteral("先来的名字"); }));
    EXPECT_FALSE(rig.view.panel);
    ASSERT_TRUE(rig.command("allow 客厅", [&] { return rig.view.panel.has_value(); }));
    EXPECT_EQ(rig.view.panel, QStringLiteral("客厅"));
    EXPECT_FALSE(rig.view.loading);
    ASSERT_TRUE(rig.receiver.waitForEvent("heartbeat"));
    ASSERT_TRUE(rig.command("rename 卧室", [&] { return rig.view.panel == QStringLiteral("卧室"); }));

    for (const char *command : {"wait", "grant", "deny 2", "deny 1", "deny 3"}) rig.receiver.command(command);
    ASSERT_TRUE(waitUntil([&] { return rig.notices.states.size() == 4; }));
    EXPECT_EQ(rig.notices.showRequest, 1);
    EXPECT_EQ(rig.notices.states, (std::vector<QVariantList>{{true, QString()}, {false, kDeclined}, {false, kFull},
                                      {false, QStringLiteral("投屏失败")}}));

    auto &center = NotificationCenter::defaultCenter();
    center.post(notice::NOTICE_RENAME, QStringLiteral("新名字"));
    center.post(notice::NOTICE_RENAME); // no name: nothing sent
    center.post(notice::NOTICE_CANCELREQUEST);
    ASSERT_TRUE(rig.receiver.waitForEvent("message_received",
        [](const QJsonObject &e) { return e.value("id").toString() == "id_permission_cancel"; }));
    const auto renames = rig.receiver.received("id_rename");
    ASSERT_EQ(renames.size(), 1);
    EXPECT_EQ(renames[0].value("property").toObject().value("name").toString(), QStringLiteral("新名字"));
    EXPECT_EQ(rig.receiver.received("id_permission_cancel").value(0).value("property").toObject().value("type"),
        QJsonValue(2));

    // The user's disconnect closes the channel only: no tip, no panel change from the session.
    center.post(notice::NOTICE_DISCONNECT);
    ASSERT_TRUE(rig.receiver.waitForEvent("control_closed"));
    velocast::test::spinFor(100ms);
    EXPECT_TRUE(rig.view.tips.empty());
    EXPECT_TRUE(rig.view.panel);
    EXPECT_FALSE(rig.control.stream());
    EXPECT_EQ(rig.notices.beDisconnect, 0);
    Preferences::remove(prefkey::USERNAME);
    MsgHeart::setTickInterval(2s);
}

// Both endings take the panel off with the same tip; only the receiver's close is announced.
TEST(ConnectionSession, ReceiverClosePostsBeDisconnectButHeartbeatLossDoesNot)
{
    const struct {
        std::chrono::milliseconds tick;
        const char *command;
        int beDisconnect;
    } cases[] = {
        // One heartbeat, read by the receiver before it closes: a close that found unread
        // data would reach us as a reset, which only the heartbeat notices.
        {60s, "close", 1},
        {50ms, "heartbeat off", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        MsgHeart::setTickInterval(c.tick);
        Rig rig;
        REQUIRE_RECEIVER(rig);
        ASSERT_TRUE(rig.connect());
        ASSERT_TRUE(waitUntil([&] { return rig.view.panel.has_value(); }));
        ASSERT_TRUE(rig.receiver.waitForEvent("heartbeat"));
        ASSERT_TRUE(rig.command(c.command, [&] { return !rig.view.panel && !rig.view.tips.empty(); }));
        EXPECT_EQ(rig.view.tips, std::vector<QString>{QStringLiteral("断开连接")});
        EXPECT_EQ(rig.notices.beDisconnect, c.beDisconnect);
        EXPECT_TRUE(rig.control.heart().isStoped());
        EXPECT_TRUE(rig.receiver.waitForEvent("control_closed"));
    }
    MsgHeart::setTickInterval(2s);
}

TEST(ConnectionSession, NoNetworkOnlyClearsTheBoxesAndBadCodesFail)
{
    Rig rig({}, velocast::test::refusedPort());
    rig.session.setIpStr(QString());
    rig.session.textCode("065793");
    ASSERT_TRUE(waitUntil([&] { return rig.view.resets == 1; }));
    EXPECT_FALSE(rig.control.stream());
    EXPECT_FALSE(rig.view.loading);

    // A refused connect shows the bad code's text; the tip hides again, also after a second one replaced it.
    rig.session.setIpStr("127.0.0.1");
    rig.session.textCode("000001");
    ASSERT_TRUE(waitUntil([&] { return rig.view.tips.size() == 1; }));
    rig.session.connectWithCode("12345");
    ASSERT_TRUE(waitUntil([&] { return rig.view.tips.size() == 2; }));
    EXPECT_EQ(rig.view.tips, (std::vector<QString>{kWrongCode, kWrongCode}));
    EXPECT_TRUE(rig.view.tipVisible);
    EXPECT_FALSE(rig.view.loading);
    EXPECT_TRUE(waitUntil([&] { return !rig.view.tipVisible; }, 10s));
}

// The connect never completes; the user's cancel ends it and nothing about it arrives later.
TEST(ConnectionSession, CancelWhileConnecting)
{
    velocast::test::HangingListener hanging;
    Rig rig({}, hanging.port());
    rig.session.textCode("000001");
    ASSERT_TRUE(waitUntil([&] { return rig.view.loading && rig.control.pendingTimeouts() == 1; }));
    rig.session.cancelConnectButtonAction();
    ASSERT_TRUE(waitUntil([&] { return !rig.view.loading && rig.view.resets >= 1; }));
    EXPECT_EQ(rig.control.pendingTimeouts(), 0);
    EXPECT_FALSE(rig.control.stream());
    velocast::test::spinFor(200ms);
    EXPECT_TRUE(rig.view.tips.empty());
}

} // namespace
