#include "control/connection_session.h"

#include "common/notification_center.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "control/net_control.h"
#include "support/loopback_peer.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QThread>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace velocast;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// Records what the session asks of the window; fails if asked off the main thread.
struct FakeView : ConnectionSessionView {
    void check() { EXPECT_EQ(QThread::currentThread(), QCoreApplication::instance()->thread()); }
    void reSetTextFields() override
    {
        check();
        ++resets;
    }
    void setLoadingVisible(bool l) override
    {
        check();
        loading = l;
    }
    void setTipVisible(bool v, const QString &t) override
    {
        check();
        tipVisible = v;
        if (v) tips.push_back(t);
    }
    void showCastingPanel(const QString &name) override
    {
        check();
        panel = true;
        panelName = name;
        ++panelsShown;
    }
    void setCastingPanelName(const QString &name) override
    {
        check();
        panelName = name;
    }
    void removeCastingPanel() override
    {
        check();
        panel = false;
        ++panelsRemoved;
    }
    int resets = 0;
    bool loading = false;
    bool tipVisible = false;
    std::vector<QString> tips;
    bool panel = false;
    QString panelName;
    int panelsShown = 0;
    int panelsRemoved = 0;
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

// A session wired to a reference receiver on loopback, with "127.0.0.1" as our address.
struct Rig {
    explicit Rig(QStringList receiverArgs = {}) : receiver(receiverArgs)
    {
        started = ReferenceReceiver::available() && receiver.start();
        control.setControlPort(receiver.controlPort());
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
    ReferenceReceiver receiver;
    bool started = false;
    NetControl control;
    FakeView view;
    ConnectionSession session{view, control};
};

#define REQUIRE_RECEIVER(rig)                                                                                          \
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";                     \
    ASSERT_TRUE((rig).started) << (rig).receiver.error().toStdString()

TEST(ConnectionSession, AdmissionRequestThenAllowShowsThePanelAndStartsHeartbeats)
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
    EXPECT_EQ(rig.receiver.count("heartbeat"), 0) << "no heartbeat before admission";

    // "id_rename" before the allow sets the name, which the allow then overwrites.
    rig.receiver.command("rename 先来的名字");
    ASSERT_TRUE(waitUntil([&] { return rig.session.pcName() == QStringLiteral("先来的名字"); }));
    EXPECT_FALSE(rig.view.panel);
    rig.receiver.command("allow 客厅");
    ASSERT_TRUE(waitUntil([&] { return rig.view.panel; }));
    EXPECT_EQ(rig.view.panelName, QStringLiteral("客厅"));
    EXPECT_FALSE(rig.view.loading);
    EXPECT_TRUE(rig.view.tips.empty());
    ASSERT_TRUE(rig.receiver.waitForEvent("heartbeat"));

    rig.receiver.command("rename 卧室");
    ASSERT_TRUE(waitUntil([&] { return rig.view.panelName == QStringLiteral("卧室"); }));
    EXPECT_EQ(rig.session.pcName(), QStringLiteral("卧室"));
    Preferences::remove(prefkey::USERNAME);
    MsgHeart::setTickInterval(2s);
}

TEST(ConnectionSession, RefusalsShowTheirTextsAndLeaveTheConnectionUp)
{
    Rig rig({"--admit", "manual"});
    REQUIRE_RECEIVER(rig);
    ASSERT_TRUE(rig.connect());
    const std::vector<std::pair<QString, QString>> cases{
        {"refuse 1", QStringLiteral("传屏已投满请稍后重试")},
        {"refuse 2", QStringLiteral("接收端未同意你的请求")},
        {R"(send id_connect_refuse {"msg":"2"})", QStringLiteral("接收端未同意你的请求")}, // a numeric string
        {R"(send id_connect_refuse {"msg":7})", QStringLiteral("连接失败")},
        {R"(send id_connect_refuse {})", QStringLiteral("连接失败")}, // missing reads as 0
    };
    for (const auto &[command, text] : cases) {
        const size_t before = rig.view.tips.size();
        rig.receiver.command(command);
        ASSERT_TRUE(waitUntil([&] { return rig.view.tips.size() == before + 1; })) << command.toStdString();
        EXPECT_EQ(rig.view.tips.back(), text) << command.toStdString();
        EXPECT_FALSE(rig.view.loading);
    }
    ASSERT_TRUE(rig.control.stream());
    EXPECT_TRUE(rig.control.stream()->isConnected()) << "a refusal leaves closing to the receiver";
    EXPECT_FALSE(rig.view.panel);
}

TEST(ConnectionSession, PermissionAnswersBecomeNotificationsForThePanel)
{
    Rig rig;
    REQUIRE_RECEIVER(rig);
    SessionNotices notices;
    ASSERT_TRUE(rig.connect());
    ASSERT_TRUE(waitUntil([&] { return rig.view.panel; }));
    rig.receiver.command("wait");
    rig.receiver.command("grant");
    rig.receiver.command("deny 2");
    rig.receiver.command("deny 1");
    rig.receiver.command("deny 3");
    ASSERT_TRUE(waitUntil([&] { return notices.states.size() == 4; }));
    EXPECT_EQ(notices.showRequest, 1);
    EXPECT_EQ(notices.states[0], (QVariantList{true, QString()}));
    EXPECT_EQ(notices.states[1], (QVariantList{false, QStringLiteral("接收端未同意你的请求")}));
    EXPECT_EQ(notices.states[2], (QVariantList{false, QStringLiteral("传屏已投满请稍后重试")}));
    EXPECT_EQ(notices.states[3], (QVariantList{false, QStringLiteral("投屏失败")}));
}

TEST(ConnectionSession, RequestsFromOtherPartsReachTheReceiver)
{
    Rig rig;
    REQUIRE_RECEIVER(rig);
    ASSERT_TRUE(rig.connect());
    ASSERT_TRUE(waitUntil([&] { return rig.view.panel; }));
    auto &center = NotificationCenter::defaultCenter();
    center.post(notice::NOTICE_RENAME, QStringLiteral("新名字"));
    center.post(notice::NOTICE_RENAME); // no name: nothing sent
    center.post(notice::NOTICE_CANCELREQUEST);
    ASSERT_TRUE(rig.receiver.waitForEvent("message_received",
        [](const QJsonObject &e) { return e.value("id").toString() == "id_permission_cancel"; }));
    EXPECT_EQ(rig.receiver.received("id_rename").size(), 1);
    EXPECT_EQ(rig.receiver.received("id_rename").value(0).value("property").toObject().value("name").toString(),
        QStringLiteral("新名字"));
    EXPECT_EQ(rig.receiver.received("id_permission_cancel").value(0).value("property").toObject().value("type"),
        QJsonValue(2));

    // The user's disconnect closes the channel only: no tip, no panel change from the session.
    center.post(notice::NOTICE_DISCONNECT);
    ASSERT_TRUE(rig.receiver.waitForEvent("control_closed"));
    velocast::test::spinFor(100ms);
    EXPECT_TRUE(rig.view.tips.empty());
    EXPECT_EQ(rig.view.panelsRemoved, 0);
    EXPECT_FALSE(rig.control.stream());
}

TEST(ConnectionSession, ReceiverClosePostsBeDisconnectButHeartbeatLossDoesNot)
{
    {
        // One heartbeat, read by the receiver before it closes: a close that found unread
        // data would reach us as a reset, which only the heartbeat notices.
        MsgHeart::setTickInterval(60s);
        Rig rig;
        REQUIRE_RECEIVER(rig);
        SessionNotices notices;
        ASSERT_TRUE(rig.connect());
        ASSERT_TRUE(waitUntil([&] { return rig.view.panel; }));
        ASSERT_TRUE(rig.receiver.waitForEvent("heartbeat"));
        rig.receiver.command("close");
        ASSERT_TRUE(waitUntil([&] { return !rig.view.panel; }));
        ASSERT_TRUE(waitUntil([&] { return !rig.view.tips.empty(); }));
        EXPECT_EQ(rig.view.tips, std::vector<QString>{QStringLiteral("断开连接")});
        EXPECT_EQ(notices.beDisconnect, 1);
        EXPECT_TRUE(rig.control.heart().isStoped());
    }
    {
        MsgHeart::setTickInterval(50ms);
        Rig rig;
        REQUIRE_RECEIVER(rig);
        SessionNotices notices;
        ASSERT_TRUE(rig.connect());
        ASSERT_TRUE(waitUntil([&] { return rig.view.panel; }));
        rig.receiver.command("heartbeat off");
        ASSERT_TRUE(waitUntil([&] { return !rig.view.panel; }, 10s));
        ASSERT_TRUE(waitUntil([&] { return !rig.view.tips.empty(); }));
        EXPECT_EQ(rig.view.tips, std::vector<QString>{QStringLiteral("断开连接")});
        EXPECT_EQ(notices.beDisconnect, 0);
        EXPECT_FALSE(rig.control.stream());
        ASSERT_TRUE(rig.receiver.waitForEvent("control_closed"));
    }
    MsgHeart::setTickInterval(2s);
}

TEST(ConnectionSession, TipHidesThreeSecondsAfterItWasShownEvenWhenReplaced)
{
    NetControl control;
    FakeView view;
    ConnectionSession session(view, control);
    session.showTipInfo("a");
    EXPECT_TRUE(view.tipVisible);
    velocast::test::spinFor(1500ms);
    session.showTipInfo("b"); // replaces the text; the first timer still hides at 3 s
    EXPECT_EQ(view.tips.back(), "b");
    ASSERT_TRUE(waitUntil([&] { return !view.tipVisible; }, 5s));
    EXPECT_EQ(view.tips.size(), 2u);
}

TEST(ConnectionSession, NoNetworkOnlyClearsTheBoxesAndBadCodesFail)
{
    NetControl control;
    control.setControlPort(velocast::test::refusedPort());
    FakeView view;
    ConnectionSession session(view, control);
    session.textCode("065793");
    ASSERT_TRUE(waitUntil([&] { return view.resets == 1; }));
    EXPECT_FALSE(control.stream());
    EXPECT_FALSE(view.loading);

    // A refused connect (wrong code, other network) shows the same text as a bad code.
    session.setIpStr("127.0.0.1");
    session.textCode("000001");
    ASSERT_TRUE(waitUntil([&] { return view.tips.size() == 1; }));
    EXPECT_EQ(view.tips[0], QStringLiteral("连接码错误或与接收端不在同一网络"));
    session.connectWithCode("12345");
    ASSERT_TRUE(waitUntil([&] { return view.tips.size() == 2; }));
    EXPECT_EQ(view.tips[1], QStringLiteral("连接码错误或与接收端不在同一网络"));
    EXPECT_FALSE(view.loading);
}

TEST(ConnectionSession, CancelWhileConnectingAndTheConnectTimeOut)
{
    velocast::test::HangingListener hanging; // the connect never completes
    NetControl control;
    control.setControlPort(hanging.port());
    FakeView view;
    ConnectionSession session(view, control);
    session.setIpStr("127.0.0.1");

    session.textCode("000001");
    ASSERT_TRUE(waitUntil([&] { return view.loading && control.pendingTimeouts() == 1; }));
    session.cancelConnectButtonAction();
    ASSERT_TRUE(waitUntil([&] { return !view.loading && view.resets >= 1; }));
    EXPECT_EQ(control.pendingTimeouts(), 0);
    EXPECT_FALSE(control.stream());

    // Left alone, the attempt times out after 5 s with the wrong-code text, once.
    session.textCode("000001");
    ASSERT_TRUE(waitUntil([&] { return !view.tips.empty(); }, 10s));
    velocast::test::spinFor(200ms);
    EXPECT_EQ(view.tips, std::vector<QString>{QStringLiteral("连接码错误或与接收端不在同一网络")});
    EXPECT_FALSE(view.loading);
}

} // namespace
