// The shared controls: CButton, the waiting overlay, the prompt, the toast and the window-chrome
// helpers.
#include "common/notification_names.h"
#include "ui/c_alert_view.h"
#include "ui/c_button.h"
#include "ui/loading_animation.h"
#include "ui/nostantard_button_window_controller.h"
#include "ui/request_loading_view.h"
#include "ui/toast.h"
#include "ui/window_button_tool.h"
#include "ui_test_util.h"

#include <QLabel>
#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

namespace velocast {
namespace {

using namespace std::chrono_literals;
using test::sendMouse;

TEST(Controls, CButtonPressCycleAndCrossedTitleColours)
{
    CButton button(QStringLiteral("开启投屏"));
    button.setGeometry(10, 10, 120, 40);
    button.setTitleNormalColor(Qt::red);
    button.setTitleHighlightColor(Qt::blue);
    button.setTitleNormalColor(QColor()); // ignored
    button.show();
    QSignalSpy clicked(&button, &QAbstractButton::clicked);
    const QPoint inside(60, 20);

    sendMouse(&button, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    EXPECT_TRUE(button.mouseDown());
    button.grab(); // paints
    EXPECT_EQ(button.titleColor(), QColor(Qt::red)) << "pressed: titleNormalColor";
    sendMouse(&button, QEvent::MouseButtonRelease, inside, Qt::NoButton);
    EXPECT_EQ(clicked.count(), 1);
    EXPECT_FALSE(button.mouseDown());
    button.grab();
    EXPECT_EQ(button.titleColor(), QColor(Qt::blue)) << "released: titleHighlightColor";

    // Dragged out and back in: the press was abandoned when it left.
    sendMouse(&button, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    sendMouse(&button, QEvent::MouseMove, QPoint(200, 20), Qt::LeftButton);
    EXPECT_FALSE(button.mouseDown());
    sendMouse(&button, QEvent::MouseMove, inside, Qt::LeftButton);
    sendMouse(&button, QEvent::MouseButtonRelease, inside, Qt::NoButton);
    button.setEnabled(false);
    QTest::mouseClick(&button, Qt::LeftButton, {}, inside);
    EXPECT_EQ(clicked.count(), 1) << "abandoned press and disabled button";
    button.setEnabled(true);
    button.setFocus();
    QTest::keyClick(&button, Qt::Key_Space);
    EXPECT_EQ(clicked.count(), 2);
}

// The overlay cancels once per press; the prompt reports which button after hiding; the toast
// is text only and removes itself.
TEST(Controls, OverlayPromptAndToast)
{
    QWidget window;
    window.resize(400, 300);
    window.show();
    test::NoticeRecorder cancels(notice::NOTICE_CANCELREQUEST);
    test::LogRecorder log;
    auto *overlay = new RequestLoadingView(&window);
    overlay->showOver(&window);
    const int frame = overlay->imageView()->frame();
    EXPECT_TRUE(test::waitUntil([&] { return overlay->imageView()->frame() != frame; }));
    QTest::mouseClick(overlay->cancelBtn(), Qt::LeftButton);
    EXPECT_FALSE(overlay->isVisible());
    EXPECT_FALSE(overlay->imageView()->isAnimating()) << "a hidden overlay keeps no timer running";
    overlay->showOver(&window);
    QTest::keyClick(overlay, Qt::Key_Escape);
    EXPECT_EQ(cancels.count(), 2);
    EXPECT_FALSE(cancels.objects.back().isValid()) << "posted without an object";
    delete overlay;
    EXPECT_EQ(log.count(QStringLiteral("dealloc")), 1);

    std::vector<bool> results;
    CAlertView *alert = CAlertView::loadFromNib(&window);
    alert->setBlockClick([&](bool cancelled) {
        EXPECT_FALSE(alert->isVisible()) << "the prompt is removed before the handler runs";
        results.push_back(cancelled);
    });
    alert->setTitle(QStringLiteral("<b>名称</b>"));
    EXPECT_EQ(alert->titleLabel()->textFormat(), Qt::PlainText);
    alert->showOver(&window);
    QTest::mouseClick(alert->confirmBtn(), Qt::LeftButton);
    alert->showOver(&window);
    QTest::mouseClick(alert->cancelBtn(), Qt::LeftButton);
    alert->showOver(&window);
    QTest::keyClick(alert, Qt::Key_Escape);
    EXPECT_EQ(results, (std::vector<bool> { false, true, true }));

    QPointer<Toast> toast = Toast::showText(&window, QStringLiteral("投屏失败"), 50ms);
    ASSERT_TRUE(toast && toast->isVisible());
    EXPECT_TRUE(toast->testAttribute(Qt::WA_TransparentForMouseEvents));
    EXPECT_TRUE(test::waitDeleted(toast)) << "hidden after the delay, then removed";
    toast = Toast::showText(&window, QStringLiteral("x"), 1h);
    toast->hide();
    EXPECT_TRUE(test::waitDeleted(toast)) << "hidden early: removed as well";
}

TEST(Controls, WindowButtonsHideAndComeBackAsTheyWere)
{
    QWidget window;
    window.show();
    const Qt::WindowFlags before = window.windowFlags();
    WindowButtonTool::setWindowButtonHidden(&window, true);
    EXPECT_FALSE(window.windowFlags() & Qt::WindowCloseButtonHint);
    EXPECT_TRUE(window.isVisible()) << "changing the buttons must not hide the window";
    WindowButtonTool::setWindowButtonHidden(&window, true); // twice: the first flags are kept
    WindowButtonTool::setWindowButtonHidden(&window, false);
    EXPECT_EQ(window.windowFlags(), before);
    EXPECT_EQ(window.windowHandle()->flags(), before);

    QWidget noZoom;
    noZoom.setWindowTitle(QStringLiteral("标题"));
    new NOStantardButtonWindowController(&noZoom);
    EXPECT_EQ(noZoom.windowFlags() & (Qt::WindowMaximizeButtonHint | Qt::WindowCloseButtonHint), Qt::WindowCloseButtonHint);
    EXPECT_TRUE(noZoom.windowTitle().isEmpty());
}

} // namespace
} // namespace velocast
