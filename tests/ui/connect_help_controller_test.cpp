// The connect-help wizard over a stand-in for the main window's content.
#include "ui/connect_help_controller.h"
#include "ui/texts.h"
#include "ui/toast.h"
#include "ui/window_button_tool.h"
#include "ui_test_util.h"

#include <QClipboard>
#include <QFile>
#include <QGuiApplication>
#include <QPushButton>
#include <QTest>
#include <QUrl>
#include <QVBoxLayout>

#include <gtest/gtest.h>

namespace velocast {
namespace {

struct Wizard {
    Wizard()
    {
        window.resize(480, 560);
        (new QVBoxLayout(&window))->addWidget(content);
        window.show();
        wizard = new ConnectHelpController(content);
        wizard->present();
    }
    std::pair<ConnectHelpController *, ConnectHelpController *> forward()
    {
        QTest::mouseClick(wizard->nextBtn(), Qt::LeftButton);
        ConnectHelpController *page2 = wizard->nextPage();
        QTest::mouseClick(page2->nextBtn(), Qt::LeftButton);
        return {page2, page2->nextPage()};
    }
    QWidget window;
    QWidget *content = new QWidget(&window);
    ConnectHelpController *wizard = nullptr;
};

TEST(ConnectHelp, CloseBackAndDoneRemoveThePagesAndTheTitleBarButtonsComeBack)
{
    test::LogRecorder log;
    Wizard w;
    EXPECT_EQ(w.wizard->geometry(), w.content->rect());
    EXPECT_TRUE(WindowButtonTool::windowButtonIsHidden(&w.window));
    auto [p2, p3] = w.forward();
    QPointer<ConnectHelpController> page2 = p2, page3 = p3;
    ASSERT_TRUE(page2 && page3 && page2->isVisible());
    EXPECT_EQ(page2->page(), 2);
    EXPECT_EQ(page3->page(), 3);
    EXPECT_EQ(page3->mapTo(&w.window, QPoint(0, 0)), w.content->mapTo(&w.window, QPoint(0, 0)));

    QTest::mouseClick(page3->closeBtn(), Qt::LeftButton);
    // All at once: nothing of the wizard is visible right after the click.
    EXPECT_FALSE(w.wizard->isVisible() || (page2 && page2->isVisible()) || (page3 && page3->isVisible()));
    EXPECT_TRUE(test::waitDeleted(page2) && test::waitDeleted(page3));
    EXPECT_EQ(log.count(QStringLiteral("dealoc")), 2) << "pages 2 and 3 go; page 1 is kept";
    EXPECT_FALSE(WindowButtonTool::windowButtonIsHidden(&w.window));

    // Back uncovers the previous page and removes the one left; done closes it all.
    w.wizard->present();
    EXPECT_EQ(w.wizard->nextPage(), nullptr);
    std::tie(page2, page3) = w.forward();
    QTest::mouseClick(page3->preBtn(), Qt::LeftButton);
    EXPECT_TRUE(test::waitDeleted(page3));
    EXPECT_TRUE(page2->isVisible());
    QTest::mouseClick(page2->nextBtn(), Qt::LeftButton);
    QTest::mouseClick(page2->nextPage()->doneBtn(), Qt::LeftButton);
    EXPECT_FALSE(w.wizard->isVisible());
    EXPECT_TRUE(test::waitUntil([&] {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return w.wizard->findChildren<ConnectHelpController *>().isEmpty();
    }));

    // Title-bar buttons hidden before the wizard stay hidden after it (closed with Escape).
    WindowButtonTool::setWindowButtonHidden(&w.window, true);
    w.wizard->present();
    QTest::keyClick(w.wizard, Qt::Key_Escape);
    EXPECT_FALSE(w.wizard->isVisible());
    EXPECT_TRUE(WindowButtonTool::windowButtonIsHidden(&w.window));
}

TEST(ConnectHelp, CopyPutsTheAddressOfTheHelpPageOnTheClipboardAndSaysSo)
{
    Wizard w;
    ConnectHelpController *page3 = w.forward().second;
    QGuiApplication::clipboard()->setText(QStringLiteral("old"));
    QTest::mouseClick(page3->urlCopyBtn(), Qt::LeftButton);
    // The help page built alongside these tests exists and answers what the wizard points to.
    const QUrl copied(QGuiApplication::clipboard()->text());
    ASSERT_TRUE(copied.isLocalFile()) << copied.toString().toStdString();
    QFile page(copied.toLocalFile());
    ASSERT_TRUE(page.open(QIODevice::ReadOnly)) << copied.toString().toStdString();
    const QString html = QString::fromUtf8(page.readAll());
    for (const QString &topic : {QStringLiteral("连接码"), QStringLiteral("同一个网络"), QStringLiteral("防火墙"),
             text::kWifiLabel, text::kWiredLabel, text::kNoNetwork, text::kSystemCasting})
        EXPECT_TRUE(html.contains(topic)) << topic.toStdString();
    QPointer<Toast> toast = page3->findChild<Toast *>();
    ASSERT_TRUE(toast);
    EXPECT_EQ(toast->text(), text::kCopied);
}

} // namespace
} // namespace velocast
