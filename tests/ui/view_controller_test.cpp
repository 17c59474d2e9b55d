#include "ui/view_controller.h"

#include "control/net_control.h"
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

namespace {

// A shown main window around the form (for the focus); the test reports the network itself.
struct Window {
    Window()
    {
        main.setCentralWidget(vc);
        main.show();
        QApplication::setActiveWindow(&main);
        vc->configNetName("lab", "127.0.0.1", false, true);
        vc->reSetTextFields();
    }
    QLineEdit *focused() const { return qobject_cast<QLineEdit *>(QApplication::focusWidget()); }
    // One key at a time, each to whatever has the focus then, as a person types.
    void type(const QString &keys, Qt::Key key = Qt::Key_unknown)
    {
        for (QChar c : keys) QTest::keyClicks(QApplication::focusWidget(), QString(c));
        if (key != Qt::Key_unknown) QTest::keyClick(focused(), key);
    }
    NetControl control;
    QMainWindow main;
    ViewController *vc = new ViewController(control, false);
};

TEST(CodeEntry, TypingPastingNetworkLineAndTheCastingPanel)
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
    w.type("", Qt::Key_Backspace);
    EXPECT_EQ(w.vc->textCode(), "12");
    EXPECT_EQ(w.focused(), w.vc->field(3));
    EXPECT_EQ(w.vc->field(3)->text(), "");
    EXPECT_FALSE(w.vc->field(3)->isReadOnly());
    EXPECT_EQ(w.vc->field(4)->focusPolicy(), Qt::NoFocus) << "left behind, no longer selectable";

    for (int i = 0; i < 3; ++i) w.type("", Qt::Key_Backspace);
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

    // The network line; a half-typed code is cleared when the network returns.
    w.vc->configNetName("office-wlan", "10.1.2.3", true, true);
    EXPECT_EQ(w.vc->networkLabel(), text::kWifiLabel);
    EXPECT_EQ(w.vc->networkName(), "office-wlan");
    w.vc->configNetName("corp.example", "10.1.2.3", false, true);
    EXPECT_EQ(w.vc->networkLabel(), text::kWiredLabel);
    EXPECT_EQ(w.vc->control().localIPStr(), "10.1.2.3");
    EXPECT_EQ(w.vc->textCode(), "12") << "reports while the code view is up leave the typing alone";
    w.vc->configNetName("", "", true, false);
    EXPECT_FALSE(w.vc->isCodeViewVisible());
    EXPECT_EQ(w.vc->session().ipStr(), "");
    w.vc->configNetName("corp.example", "10.1.2.3", false, true);
    EXPECT_TRUE(w.vc->isCodeViewVisible());
    EXPECT_EQ(w.vc->textCode(), "");
    EXPECT_EQ(w.vc->field(1)->text(), "");

    // The casting panel covers the form while admitted, and goes when the cast ends.
    w.vc->showCastingPanel("客厅");
    ASSERT_TRUE(w.vc->miracastVC() && w.vc->miracastVC()->isVisible());
    w.vc->removeCastingPanel();
    EXPECT_FALSE(w.vc->miracastVC()->isVisible());
}

} // namespace
