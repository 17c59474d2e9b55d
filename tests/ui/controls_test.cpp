// The shared overlays: the waiting overlay, the prompt and the toast.
#include "common/notification_names.h"
#include "ui/c_alert_view.h"
#include "ui/c_button.h"
#include "ui/loading_animation.h"
#include "ui/request_loading_view.h"
#include "ui/toast.h"
#include "ui_test_util.h"

#include <QLabel>
#include <QTest>

#include <gtest/gtest.h>

namespace velocast {
namespace {

using namespace std::chrono_literals;

// The overlay cancels once per press, the prompt says which button after hiding, the toast goes.
TEST(Controls, OverlayPromptAndToast)
{
    QWidget window;
    window.resize(400, 300);
    window.show();
    test::NoticeRecorder cancels(notice::NOTICE_CANCELREQUEST);
    test::LogRecorder log;
    auto *overlay = new RequestLoadingView(&window);
    overlay->showOver(&window);
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
}

} // namespace
} // namespace velocast
