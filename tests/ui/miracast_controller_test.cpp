// The casting panel: roads, start/stop, the waiting overlay, toasts, disconnect, the name prompt.
#include "common/notification_names.h"
#include "common/preferences.h"
#include "ui/c_alert_view.h"
#include "ui/c_button.h"
#include "ui/miracast_controller.h"
#include "ui/request_loading_view.h"
#include "ui/root_view.h"
#include "ui/setting_controller.h"
#include "ui/texts.h"
#include "ui/toast.h"
#include "ui_test_util.h"

#include <QApplication>
#include <QLabel>
#include <QTest>
#include <QTimer>

#include <thread>

#include <gtest/gtest.h>

namespace velocast {
namespace {

using namespace notice;

void post(const char *name, const QVariant &object = {})
{
    NotificationCenter::defaultCenter().post(QString::fromLatin1(name), object);
}

// A panel over a shown window; past the first-use prompt unless prompted.
struct Panel {
    explicit Panel(bool prompted = false)
    {
        if (prompted)
            Preferences::remove(QString::fromLatin1(prefkey::InitPCName));
        else
            Preferences::setValue(QString::fromLatin1(prefkey::InitPCName), true);
        window.resize(480, 560);
        window.show();
        panel = new MiracastController(&window);
        panel->setGeometry(window.rect());
        panel->show();
    }
    void chooseSecondEntry()
    {
        QTest::mouseClick(panel->miracastMenuBtn(), Qt::LeftButton);
        QTest::mouseClick(panel->miracastMenuBtn2(), Qt::LeftButton);
        EXPECT_FALSE(panel->miracastMenuBtn2()->isVisible());
    }
    QWidget window;
    MiracastController *panel = nullptr;
};

TEST(CastingPanel, StartAndStopPostTheNoticesOfTheRoadInForce)
{
    test::NoticeRecorder mirrorStart(NOTICE_STARTSCREENCAPTURE), mirrorStop(NOTICE_STOPSCREENCAPTURE);
    test::NoticeRecorder secondStart(AIRPLAYCONTROL_START), secondStop(AIRPLAYCONTROL_STOP);
    Panel p;
    CButton *state = p.panel->miracastStateBtn();
    // Start asks; the title waits for the receiver's answer, so a second press asks again.
    QTest::mouseClick(state, Qt::LeftButton);
    QTest::mouseClick(state, Qt::LeftButton);
    EXPECT_EQ(mirrorStart.count(), 2);
    EXPECT_EQ(state->text(), text::kStartCasting);

    // The second road is pressed in its end-to-end test; here, the way back to mirroring.
    p.chooseSecondEntry();
    EXPECT_EQ(p.panel->mircastMenuLabel()->text(), text::kSystemCasting);
    p.chooseSecondEntry();
    EXPECT_EQ(p.panel->mircastMenuLabel()->text(), text::kMirrorScreen);
    QTest::mouseClick(state, Qt::LeftButton);
    EXPECT_EQ(mirrorStart.count(), 3);
    EXPECT_EQ(mirrorStop.count() + secondStart.count() + secondStop.count(), 0);
}

TEST(CastingPanel, StateFromAnotherThreadAndOnlyTheMirroringStopNoticeResetsThePanel)
{
    Panel p;
    p.chooseSecondEntry();
    std::thread([] { post(NOTICE_SCREENCAPTURESTATE, QVariantList { true, QString() }); }).join();
    ASSERT_TRUE(test::waitUntil([&] { return p.panel->miracastStateBtn()->text() == text::kStopCasting; }));
    ASSERT_TRUE(p.window.isMinimized());
    // The subscription was made on the mirroring road and stays there.
    post(NOTICE_BESTOP_AIRPLAY);
    EXPECT_EQ(p.panel->miracastStateBtn()->text(), text::kStopCasting);
    post(NOTICE_BESTOPSCREENCAPTURE);
    EXPECT_EQ(p.panel->miracastStateBtn()->text(), text::kStartCasting);
    EXPECT_TRUE(test::waitUntil([&] { return !p.window.isMinimized(); })) << "the window is restored";
}

TEST(CastingPanel, WaitingOverlayGoesWithAnyCaptureStateAndARefusalIsToasted)
{
    Panel p;
    post(NOTICE_SHOWREQUESTVIEW);
    QPointer<RequestLoadingView> overlay = p.panel->loadingView();
    ASSERT_TRUE(overlay && overlay->isVisible());
    // A one-item array changes no title but still takes the overlay away.
    post(NOTICE_SCREENCAPTURESTATE, QVariantList { true });
    EXPECT_FALSE(overlay && overlay->isVisible());
    EXPECT_TRUE(test::waitDeleted(overlay));

    post(NOTICE_SHOWREQUESTVIEW);
    overlay = p.panel->loadingView();
    post(NOTICE_SCREENCAPTURESTATE, QVariantList { false, QStringLiteral("接收端拒绝了投屏") });
    EXPECT_TRUE(test::waitDeleted(overlay));
    EXPECT_EQ(p.panel->miracastStateBtn()->text(), text::kStartCasting);
    QPointer<Toast> toast = p.panel->findChild<Toast *>();
    ASSERT_TRUE(toast);
    EXPECT_EQ(toast->text(), QStringLiteral("接收端拒绝了投屏"));
    EXPECT_TRUE(test::waitDeleted(toast)) << "the toast goes by itself";
}

TEST(CastingPanel, ReceiverNameAsPlainTextAndDisconnectPostsOnce)
{
    test::NoticeRecorder disconnects(NOTICE_DISCONNECT);
    Panel p;
    p.panel->setPcName(QStringLiteral("<b>客厅</b>"));
    EXPECT_EQ(p.panel->pc_nameTF()->text(), QStringLiteral("<b>客厅</b>"));
    EXPECT_EQ(p.panel->pc_nameTF()->textFormat(), Qt::PlainText);
    QTest::mouseClick(p.panel->connectBtn(), Qt::LeftButton);
    EXPECT_EQ(disconnects.count(), 1);
    EXPECT_FALSE(p.panel->isVisible());
}

// The first showing prompts once, even if cancelled; confirm (only) opens the settings window.
TEST(CastingPanel, FirstShowingPromptsOnce)
{
    test::LogRecorder log;
    for (const bool confirm : {true, false}) {
        Panel p(true);
        QPointer<CAlertView> prompt = p.panel->nameAlertView();
        ASSERT_TRUE(prompt && prompt->isVisible());
        EXPECT_TRUE(Preferences::value(QString::fromLatin1(prefkey::InitPCName)).toBool());
        // The settings window runs modally inside the click; close it once it is up.
        bool sawSettings = false;
        QTimer closer;
        QObject::connect(&closer, &QTimer::timeout, [&] {
            if (auto *settings = qobject_cast<SettingController *>(QApplication::activeModalWidget())) {
                sawSettings = true;
                settings->cancelBtnAction();
            }
        });
        closer.start(10);
        QTest::mouseClick(confirm ? prompt->confirmBtn() : prompt->cancelBtn(), Qt::LeftButton);
        closer.stop();
        EXPECT_EQ(sawSettings, confirm);
        EXPECT_TRUE(test::waitDeleted(prompt));
    }
    EXPECT_EQ(log.count(text::kFirstStart), 2);
    MiracastController second; // after a cancelled prompt
    EXPECT_EQ(second.findChild<CAlertView *>(), nullptr);
    EXPECT_EQ(log.count(text::kNotFirstStart), 1);
}

} // namespace
} // namespace velocast
