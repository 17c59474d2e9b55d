// The connect-help wizard over a stand-in for the main window's content.
#include "support/test_support.h"
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

class ConnectHelpControllerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        window.resize(480, 560);
        content = new QWidget(&window);
        auto *layout = new QVBoxLayout(&window);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(content);
        window.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
        wizard = new ConnectHelpController(content);
    }

    QWidget window;
    QWidget *content = nullptr;
    ConnectHelpController *wizard = nullptr;
};

TEST_F(ConnectHelpControllerTest, CloseBackAndDoneRemoveThePagesAndReopenOnPageOne)
{
    test::LogRecorder log;
    wizard->present();
    EXPECT_EQ(wizard->geometry(), content->rect());

    QTest::mouseClick(wizard->nextBtn(), Qt::LeftButton);
    QPointer<ConnectHelpController> page2 = wizard->nextPage();
    ASSERT_TRUE(page2 && page2->isVisible());
    EXPECT_EQ(page2->page(), 2);
    QTest::mouseClick(page2->nextBtn(), Qt::LeftButton);
    QPointer<ConnectHelpController> page3 = page2->nextPage();
    ASSERT_TRUE(page3);
    EXPECT_EQ(page3->page(), 3);
    EXPECT_EQ(page3->mapTo(&window, QPoint(0, 0)), content->mapTo(&window, QPoint(0, 0)));

    QTest::mouseClick(page3->closeBtn(), Qt::LeftButton);
    // All at once: nothing of the wizard is visible right after the click.
    EXPECT_FALSE(wizard->isVisible());
    EXPECT_FALSE(page2 && page2->isVisible());
    EXPECT_FALSE(page3 && page3->isVisible());
    EXPECT_TRUE(test::waitDeleted(page2) && test::waitDeleted(page3));
    EXPECT_EQ(log.count(QStringLiteral("dealoc")), 2) << "pages 2 and 3 go; page 1 is kept";

    wizard->present();
    EXPECT_TRUE(wizard->isVisible());
    EXPECT_EQ(wizard->nextPage(), nullptr);

    // Back uncovers the previous page and removes the one left.
    QTest::mouseClick(wizard->nextBtn(), Qt::LeftButton);
    page2 = wizard->nextPage();
    QTest::mouseClick(page2->nextBtn(), Qt::LeftButton);
    page3 = page2->nextPage();
    QTest::mouseClick(page3->preBtn(), Qt::LeftButton);
    EXPECT_TRUE(test::waitDeleted(page3));
    EXPECT_TRUE(page2->isVisible());
    QTest::mouseClick(page2->preBtn(), Qt::LeftButton);
    EXPECT_TRUE(test::waitDeleted(page2));
    EXPECT_TRUE(wizard->isVisible());

    // Done on page 3 closes it all like the close button.
    QTest::mouseClick(wizard->nextBtn(), Qt::LeftButton);
    QTest::mouseClick(wizard->nextPage()->nextBtn(), Qt::LeftButton);
    QTest::mouseClick(wizard->nextPage()->nextPage()->doneBtn(), Qt::LeftButton);
    EXPECT_FALSE(wizard->isVisible());
    EXPECT_TRUE(test::waitUntil([&] {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return wizard->findChildren<ConnectHelpController *>().isEmpty();
    }));
}

TEST_F(ConnectHelpControllerTest, TitleBarButtonsHiddenWhileTheWizardIsUp)
{
    ASSERT_FALSE(WindowButtonTool::windowButtonIsHidden(&window));
    wizard->present();
    EXPECT_TRUE(WindowButtonTool::windowButtonIsHidden(&window));
    QTest::mouseClick(wizard->closeBtn(), Qt::LeftButton);
    EXPECT_FALSE(WindowButtonTool::windowButtonIsHidden(&window));

    // Buttons already hidden before: they stay hidden afterwards.
    WindowButtonTool::setWindowButtonHidden(&window, true);
    wizard->present();
    QTest::keyClick(wizard, Qt::Key_Escape);
    EXPECT_FALSE(wizard->isVisible());
    EXPECT_TRUE(WindowButtonTool::windowButtonIsHidden(&window));
}

TEST_F(ConnectHelpControllerTest, CopyPutsTheHelpAddressOnTheClipboardAndSaysSo)
{
    wizard->present();
    QTest::mouseClick(wizard->nextBtn(), Qt::LeftButton);
    QTest::mouseClick(wizard->nextPage()->nextBtn(), Qt::LeftButton);
    ConnectHelpController *page3 = wizard->nextPage()->nextPage();
    QGuiApplication::clipboard()->setText(QStringLiteral("old"));

    QTest::mouseClick(page3->urlCopyBtn(), Qt::LeftButton);
    // The address of the help page built alongside these tests: a page that exists and
    // answers what the wizard's steps point to.
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
