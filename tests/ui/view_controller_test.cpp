#include "ui/view_controller.h"

#include "control/net_control.h"
#include "support/reference_receiver.h"
#include "support/test_support.h"
#include "ui/miracast_controller.h"
#include "ui/texts.h"

#include <QApplication>
#include <QClipboard>
#include <QLineEdit>
#include <QMainWindow>
#include <QTest>

#include <gtest/gtest.h>

using namespace velocast;
using velocast::test::ReferenceReceiver;
using velocast::test::waitUntil;
using namespace std::chrono_literals;

namespace {

// A main window around the form, shown so that focus works; no network monitor: each test
// reports the network itself.
struct Window {
    Window()
    {
        vc = new ViewController(control, false);
        main.setCentralWidget(vc);
        main.resize(520, 380);
        main.show();
        QApplication::setActiveWindow(&main);
        vc->configNetName("lab", "127.0.0.1", false, true);
        vc->reSetTextFields();
    }
    QLineEdit *focused() const { return qobject_cast<QLineEdit *>(QApplication::focusWidget()); }
    // One key at a time, each to whatever has the focus then, as a person types.
    void type(const QString &keys)
    {
        for (QChar c : keys) QTest::keyClicks(QApplication::focusWidget(), QString(c));
    }
    void backspace(int times)
    {
        for (int i = 0; i < times; ++i) QTest::keyClick(focused(), Qt::Key_Backspace);
    }
    NetControl control;
    QMainWindow main;
    ViewController *vc = nullptr;
};

TEST(CodeEntry, TypingPastingAndBackspaceMoveThroughTheBoxes)
{
    Window w;
    ASSERT_EQ(w.focused(), w.vc->field(1));
    w.type("123a"); // the letter is refused
    EXPECT_EQ(w.vc->textCode(), "123");
    EXPECT_EQ(w.focused(), w.vc->field(4));
    EXPECT_EQ(w.vc->field(4)->text(), "");
    EXPECT_TRUE(w.vc->field(3)->isReadOnly());
    EXPECT_FALSE(w.vc->field(4)->isReadOnly());

    // Backspace in the empty box 4 drops the 3 and reopens box 3, emptied.
    w.backspace(1);
    EXPECT_EQ(w.vc->textCode(), "12");
    EXPECT_EQ(w.focused(), w.vc->field(3));
    EXPECT_EQ(w.vc->field(3)->text(), "");
    EXPECT_FALSE(w.vc->field(3)->isReadOnly());
    EXPECT_EQ(w.vc->field(4)->focusPolicy(), Qt::NoFocus) << "left behind, no longer selectable";

    // Back to the start, then nothing more to delete.
    w.backspace(3);
    EXPECT_EQ(w.vc->textCode(), "");
    EXPECT_EQ(w.focused(), w.vc->field(1));

    // Pasting two digits counts as two; a paste with a letter changes nothing.
    QApplication::clipboard()->setText("12");
    w.vc->field(1)->paste();
    EXPECT_EQ(w.focused(), w.vc->field(3));
    QApplication::clipboard()->setText("x9");
    w.vc->field(3)->paste();
    EXPECT_EQ(w.vc->textCode(), "12");
    EXPECT_EQ(w.vc->field(3)->text(), "");
}

TEST(CodeEntry, NetworkLineAndAHalfTypedCodeClearedWhenTheNetworkReturns)
{
    Window w;
    w.vc->configNetName("office-wlan", "10.1.2.3", true, true);
    EXPECT_EQ(w.vc->networkLabel(), text::kWifiLabel);
    EXPECT_EQ(w.vc->networkName(), "office-wlan");
    w.vc->configNetName("corp.example", "10.1.2.3", false, true);
    EXPECT_EQ(w.vc->networkLabel(), text::kWiredLabel);
    EXPECT_EQ(w.vc->control().localIPStr(), "10.1.2.3");

    w.type("12");
    w.vc->configNetName("", "", true, false);
    EXPECT_FALSE(w.vc->isCodeViewVisible());
    EXPECT_EQ(w.vc->session().ipStr(), "");
    w.vc->configNetName("corp.example", "10.1.2.3", false, true);
    EXPECT_TRUE(w.vc->isCodeViewVisible());
    EXPECT_EQ(w.vc->textCode(), "");
    EXPECT_EQ(w.vc->field(1)->text(), "");
    // A repeated report while the code view is up leaves the typing alone.
    w.type("4");
    w.vc->configNetName("corp.example", "10.1.2.3", false, true);
    EXPECT_EQ(w.vc->textCode(), "4");
}

// Typing and casting through the real window: end_to_end_window_test.sh. Here, what it cannot
// see: the panel over the form and the way back to code entry.
TEST(MainWindow, AdmissionShowsThePanelAndTheReceiversCloseBringsBackCodeEntry)
{
    if (!ReferenceReceiver::available()) GTEST_SKIP() << "built without the reference receiver";
    ReferenceReceiver receiver({"--name", "<b>客厅</b>"});
    ASSERT_TRUE(receiver.start()) << receiver.error().toStdString();
    Window w;
    w.control.setControlPort(receiver.controlPort());
    w.type(receiver.code());
    ASSERT_TRUE(waitUntil([&] { return w.vc->miracastVC() && w.vc->miracastVC()->isVisible(); }));
    EXPECT_EQ(w.vc->miracastVC()->pcName(), "<b>客厅</b>");
    EXPECT_FALSE(w.vc->isLoadingVisible());
    EXPECT_TRUE(w.vc->textCode().isEmpty());

    // A close that finds a heartbeat unread arrives as a reset, which the heartbeat notices.
    MsgHeart::setTickInterval(50ms);
    receiver.command("close");
    ASSERT_TRUE(waitUntil([&] { return !w.vc->miracastVC()->isVisible() && w.vc->isTipVisible(); }));
    EXPECT_EQ(w.vc->tipText(), text::kDisconnected);
    EXPECT_TRUE(w.vc->isCodeViewVisible());
    MsgHeart::setTickInterval(2s);
}

} // namespace
