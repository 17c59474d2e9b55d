// The casting panel: roads, start/stop, the waiting overlay, failure toasts, disconnect and
// the first-use display-name prompt.
#include "common/notification_names.h"
#include "common/preferences.h"
#include "support/test_support.h"
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

void postCaptureState(bool allowed, const QString &text = {})
{
    post(NOTICE_SCREENCAPTURESTATE, QVariantList { allowed, text });
}

class MiracastControllerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The prompt has its own test; the others start past the first showing.
        Preferences::setValue(QString::fromLatin1(prefkey::InitPCName), true);
        window.resize(480, 560);
        window.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    }

    MiracastController *makePanel()
    {
        auto *panel = new MiracastController(&window);
        panel->setGeometry(window.rect());
        panel->show();
        return panel;
    }

    static void chooseSecondEntry(MiracastController *panel)
    {
        QTest::mouseClick(panel->miracastMenuBtn(), Qt::LeftButton);
        QTest::mouseClick(panel->miracastMenuBtn2(), Qt::LeftButton);
        ASSERT_FALSE(panel->miracastMenuBtn2()->isVisible());
    }

    QWidget window;
};

TEST_F(MiracastControllerTest, StartAndStopPostTheNoticesOfTheRoadInForce)
{
    test::NoticeRecorder mirrorStart(NOTICE_STARTSCREENCAPTURE), mirrorStop(NOTICE_STOPSCREENCAPTURE);
    test::NoticeRecorder secondStart(AIRPLAYCONTROL_START), secondStop(AIRPLAYCONTROL_STOP);
    MiracastController *panel = makePanel();
    CButton *state = panel->miracastStateBtn();

    // Start asks; the title waits for the receiver's answer, so a second press asks again.
    QTest::mouseClick(state, Qt::LeftButton);
    QTest::mouseClick(state, Qt::LeftButton);
    EXPECT_EQ(mirrorStart.count(), 2);
    EXPECT_EQ(state->text(), text::kStartCasting);

    // The second road's start, stop and title are pressed in its end-to-end test; here, the
    // way back to mirroring.
    chooseSecondEntry(panel);
    EXPECT_EQ(panel->mircastMenuLabel()->text(), text::kSystemCasting);
    chooseSecondEntry(panel);
    EXPECT_EQ(panel->mircastMenuLabel()->text(), text::kMirrorScreen);
    QTest::mouseClick(state, Qt::LeftButton);
    EXPECT_EQ(mirrorStart.count(), 3);

    // A title that is neither text does nothing.
    state->setText(QStringLiteral("?"));
    QTest::mouseClick(state, Qt::LeftButton);
    EXPECT_EQ(mirrorStart.count() + mirrorStop.count() + secondStart.count() + secondStop.count(), 3);
}

TEST_F(MiracastControllerTest, StateFromAnotherThreadAndOnlyTheMirroringStopNoticeResetsThePanel)
{
    MiracastController *panel = makePanel();
    chooseSecondEntry(panel);
    std::thread poster([] { postCaptureState(true); });
    poster.join();
    ASSERT_TRUE(test::waitUntil([&] { return panel->miracastStateBtn()->text() == text::kStopCasting; }));
    ASSERT_TRUE(window.isMinimized());

    // The subscription was made on the mirroring road and stays there.
    post(NOTICE_BESTOP_AIRPLAY);
    EXPECT_EQ(panel->miracastStateBtn()->text(), text::kStopCasting);

    post(NOTICE_BESTOPSCREENCAPTURE);
    EXPECT_EQ(panel->miracastStateBtn()->text(), text::kStartCasting);
    EXPECT_TRUE(test::waitUntil([&] { return !window.isMinimized(); })) << "the window is restored";
}

TEST_F(MiracastControllerTest, WaitingOverlayGoesWithAnyCaptureState)
{
    MiracastController *panel = makePanel();
    post(NOTICE_SHOWREQUESTVIEW);
    QPointer<RequestLoadingView> overlay = panel->loadingView();
    ASSERT_TRUE(overlay && overlay->isVisible());

    // A one-item array changes no title but still takes the overlay away.
    post(NOTICE_SCREENCAPTURESTATE, QVariantList { true });
    EXPECT_FALSE(overlay && overlay->isVisible());
    EXPECT_EQ(panel->miracastStateBtn()->text(), text::kStartCasting);
    EXPECT_TRUE(test::waitDeleted(overlay));

    // A refusal: the text as a toast, the overlay gone, the title unchanged.
    post(NOTICE_SHOWREQUESTVIEW);
    overlay = panel->loadingView();
    postCaptureState(false, QStringLiteral("接收端拒绝了投屏"));
    EXPECT_TRUE(test::waitDeleted(overlay));
    EXPECT_EQ(panel->miracastStateBtn()->text(), text::kStartCasting);
    QPointer<Toast> toast = panel->findChild<Toast *>();
    ASSERT_TRUE(toast);
    EXPECT_EQ(toast->text(), QStringLiteral("接收端拒绝了投屏"));
    EXPECT_TRUE(test::waitDeleted(toast)) << "the toast goes by itself";

    // Cancelled overlay, then shown again: the same request view comes back.
    post(NOTICE_SHOWREQUESTVIEW);
    overlay = panel->loadingView();
    QTest::mouseClick(overlay->cancelBtn(), Qt::LeftButton);
    EXPECT_FALSE(overlay->isVisible());
    post(NOTICE_SHOWREQUESTVIEW);
    EXPECT_EQ(panel->loadingView(), overlay.data());
    EXPECT_TRUE(overlay->isVisible());
}

TEST_F(MiracastControllerTest, DropDownClosesOnAClickOutsideAndDisconnectPostsOnce)
{
    test::NoticeRecorder disconnects(NOTICE_DISCONNECT);
    MiracastController *panel = makePanel();
    QTest::mouseClick(panel->miracastMenuBtn(), Qt::LeftButton);
    ASSERT_TRUE(panel->miracastMenuBtnTouchView2()->isVisible());
    // The open entry lies over the start button and takes its clicks.
    EXPECT_GT(panel->miracastMenuBtnBg2()->geometry().top(), panel->miracastMenuBtn()->mapTo(panel, QPoint(0, 0)).y());

    QTest::mouseClick(panel->miracastMenuBtnTouchView2(), Qt::LeftButton, {}, QPoint(5, 5));
    EXPECT_FALSE(panel->miracastMenuBtn()->isChecked());
    EXPECT_FALSE(panel->miracastMenuBtn2()->isVisible());
    EXPECT_EQ(panel->startNotice(), QString::fromLatin1(NOTICE_STARTSCREENCAPTURE)) << "closing is not choosing";

    panel->setPcName(QStringLiteral("<b>客厅</b>"));
    EXPECT_EQ(panel->pc_nameTF()->text(), QStringLiteral("<b>客厅</b>"));
    EXPECT_EQ(panel->pc_nameTF()->textFormat(), Qt::PlainText);

    QTest::mouseClick(panel->connectBtn(), Qt::LeftButton);
    EXPECT_EQ(disconnects.count(), 1);
    EXPECT_FALSE(panel->isVisible());
}

TEST_F(MiracastControllerTest, FirstShowingPromptsOnceEvenIfCancelled)
{
    Preferences::remove(QString::fromLatin1(prefkey::InitPCName));
    test::LogRecorder log;
    MiracastController *first = makePanel();
    QPointer<CAlertView> prompt = first->nameAlertView();
    ASSERT_TRUE(prompt && prompt->isVisible());
    EXPECT_EQ(log.count(text::kFirstStart), 1);
    EXPECT_TRUE(Preferences::value(QString::fromLatin1(prefkey::InitPCName)).toBool());

    QTest::mouseClick(prompt->cancelBtn(), Qt::LeftButton);
    EXPECT_TRUE(test::waitDeleted(prompt));
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr) << "cancel opens no settings";
    delete first;

    MiracastController *second = makePanel();
    EXPECT_EQ(second->findChild<CAlertView *>(), nullptr);
    EXPECT_EQ(log.count(text::kNotFirstStart), 1);
}

TEST_F(MiracastControllerTest, PromptConfirmOpensTheSettingsWindow)
{
    Preferences::remove(QString::fromLatin1(prefkey::InitPCName));
    MiracastController *panel = makePanel();
    QPointer<CAlertView> prompt = panel->nameAlertView();
    ASSERT_TRUE(prompt);

    // The settings window runs modally inside the click; close it once it is up.
    bool sawSettings = false;
    QTimer closer;
    closer.setInterval(10);
    QObject::connect(&closer, &QTimer::timeout, [&] {
        if (auto *settings = qobject_cast<SettingController *>(QApplication::activeModalWidget())) {
            sawSettings = true;
            settings->cancelBtnAction();
        }
    });
    closer.start();
    QTest::mouseClick(prompt->confirmBtn(), Qt::LeftButton);
    closer.stop();
    EXPECT_TRUE(sawSettings);
    EXPECT_TRUE(test::waitDeleted(prompt));
}

} // namespace
} // namespace velocast
