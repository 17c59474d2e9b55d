// The shared controls: the press cycle of CButton, the waiting overlay, the prompt, the
// toast, the picture that drags its window, and the window-chrome helpers.
#include "common/notification_names.h"
#include "support/test_support.h"
#include "ui/c_alert_view.h"
#include "ui/c_button.h"
#include "ui/loading_animation.h"
#include "ui/nostantard_button_window_controller.h"
#include "ui/only_close_window_controller.h"
#include "ui/request_loading_view.h"
#include "ui/root_image_view.h"
#include "ui/toast.h"
#include "ui/window_button_tool.h"
#include "ui_test_util.h"

#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

namespace velocast {
namespace {

using namespace std::chrono_literals;
using test::sendMouse;

class ControlsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        window.resize(400, 300);
        window.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    }
    QWidget window;
};

// Presses at a point of w, moves the pointer by delta on the screen, releases.
void drag(QWidget *w, QPoint local, QPoint delta)
{
    const QPoint from = w->mapToGlobal(local), to = from + delta;
    for (const auto &[type, global, button, held] : {std::tuple(QEvent::MouseButtonPress, from, Qt::LeftButton, Qt::LeftButton),
                                                     std::tuple(QEvent::MouseMove, to, Qt::NoButton, Qt::LeftButton),
                                                     std::tuple(QEvent::MouseButtonRelease, to, Qt::LeftButton, Qt::NoButton)}) {
        QMouseEvent e(type, QPointF(w->mapFromGlobal(global)), QPointF(global), button, Qt::MouseButtons(held), Qt::NoModifier);
        QCoreApplication::sendEvent(w, &e);
    }
}

TEST_F(ControlsTest, CButtonPressCycleAndCrossedTitleColours)
{
    CButton button(QStringLiteral("开启投屏"), &window);
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
    EXPECT_EQ(clicked.count(), 1);

    button.setEnabled(false);
    QTest::mouseClick(&button, Qt::LeftButton, {}, inside);
    EXPECT_EQ(clicked.count(), 1) << "a disabled button ignores presses";

    button.setEnabled(true);
    QTest::mouseClick(&button, Qt::LeftButton, {}, inside);
    button.setFocus();
    QTest::keyClick(&button, Qt::Key_Space);
    EXPECT_EQ(clicked.count(), 3);
}

TEST_F(ControlsTest, WaitingOverlayCancelPostsOncePerPress)
{
    test::NoticeRecorder cancels(notice::NOTICE_CANCELREQUEST);
    test::LogRecorder log;
    auto *overlay = new RequestLoadingView(&window);
    overlay->showOver(&window);
    const int frame = overlay->imageView()->frame();
    EXPECT_TRUE(test::waitUntil([&] { return overlay->imageView()->frame() != frame; }));

    QTest::mouseClick(overlay->cancelBtn(), Qt::LeftButton);
    EXPECT_EQ(cancels.count(), 1);
    EXPECT_FALSE(overlay->isVisible());
    EXPECT_FALSE(overlay->imageView()->isAnimating()) << "a hidden overlay keeps no timer running";

    overlay->showOver(&window);
    QTest::keyClick(overlay, Qt::Key_Escape);
    EXPECT_EQ(cancels.count(), 2);
    EXPECT_FALSE(cancels.objects.back().isValid()) << "posted without an object";

    delete overlay;
    EXPECT_EQ(log.count(QStringLiteral("dealloc")), 1);
}

TEST_F(ControlsTest, PromptReportsWhichButtonAfterHiding)
{
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
}

TEST_F(ControlsTest, ToastIsTextOnlyAndRemovesItselfAfterTheDelay)
{
    QPointer<Toast> toast = Toast::showText(&window, QStringLiteral("投屏失败"), 50ms);
    ASSERT_TRUE(toast && toast->isVisible());
    EXPECT_TRUE(toast->testAttribute(Qt::WA_TransparentForMouseEvents));
    EXPECT_TRUE(test::waitDeleted(toast)) << "hidden after the delay, then removed";

    // Hidden early: removed as well.
    toast = Toast::showText(&window, QStringLiteral("x"), 1h);
    toast->hide();
    EXPECT_TRUE(test::waitDeleted(toast));
}

TEST_F(ControlsTest, DraggingThePictureOrACloseOnlyWindowMovesTheWindow)
{
    auto *picture = new RootImageView(&window);
    picture->setGeometry(0, 0, 100, 100);
    picture->show();
    window.move(100, 100);
    const QPoint start = window.pos();
    drag(picture, QPoint(10, 10), QPoint(40, 25));
    // After the release, moving does nothing.
    sendMouse(picture, QEvent::MouseMove, QPoint(60, 60), Qt::LeftButton);
    EXPECT_EQ(window.pos(), start + QPoint(40, 25));

    QWidget closeOnly;
    new OnlyCloseWindowController(&closeOnly);
    EXPECT_TRUE(closeOnly.windowFlags() & Qt::WindowCloseButtonHint);
    EXPECT_FALSE(closeOnly.windowFlags() & (Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint));
    closeOnly.resize(200, 100);
    closeOnly.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&closeOnly));
    const QPoint before = closeOnly.pos();
    drag(&closeOnly, QPoint(20, 20), QPoint(10, 0));
    EXPECT_EQ(closeOnly.pos(), before + QPoint(10, 0)) << "movable by its background";
}

TEST_F(ControlsTest, WindowButtonsHideAndComeBackAsTheyWere)
{
    const Qt::WindowFlags before = window.windowFlags();
    ASSERT_FALSE(WindowButtonTool::windowButtonIsHidden(&window));
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
