// The settings window: the display-name filter, editing, confirm and cancel.
#include "app/app_start_manager.h"
#include "common/notification_names.h"
#include "common/preferences.h"
#include "ui/c_button.h"
#include "ui/setting_controller.h"
#include "ui/texts.h"
#include "ui_test_util.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QTest>

#include <gtest/gtest.h>

namespace velocast {
namespace {

TEST(NameFilterTest, KeepsLettersDigitsIdeographsWithinEightGb18030Bytes)
{
    const std::pair<const char *, const char *> cases[] = {
        { "My Mac_2!", "MyMac2" },
        { "_x_\t", "x" }, // "_" goes, though the predicate allows it
        { "ab😀cd", "abcd" }, // emoji
        { "abcdefghi", "abcdefgh" }, // 9 letters: the first 8
        { "一二三四五", "一二三四" }, // 5 ideographs: the first 4
        { "ab一二三四", "ab一二三" }, // 10 bytes, the cut falls between characters
        { "a一二三四", "a一二三" }, // 9 bytes, the cut splits 四: 7 bytes kept
        { "一二三ab", "一二三ab" }, // 8 bytes: 3 ideographs and 2 letters
        { "龥龦〇", "龥" }, // U+9FA5 is the last ideograph kept; U+9FA6 and U+3007 go
        { "１２３é", "" }, // full-width digits and accented letters are not ASCII
    };
    for (const auto &[typed, kept] : cases)
        EXPECT_EQ(SettingController::showNameCheck(QString::fromUtf8(typed)), QString::fromUtf8(kept)) << typed;
    // The predicate on its own allows "_" and refuses an empty name.
    EXPECT_TRUE(SettingController::stringIsOnlyLetterNumberAndChineseCharacter(QStringLiteral("ab_1中文")));
    EXPECT_FALSE(SettingController::stringIsOnlyLetterNumberAndChineseCharacter(QString()));
}

class SettingControllerTest : public ::testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override
    {
        Preferences::remove(QString::fromLatin1(prefkey::USERNAME));
        AppStartManager::setStartAtLogin(false);
    }
};

TEST_F(SettingControllerTest, OpensWithTheFilteredNameTypingIsFilteredAndAnEmptyNameCannotBeConfirmed)
{
    SettingController fresh;
    EXPECT_EQ(fresh.pcNameTF()->text(), SettingController::showNameCheck(LocalizedHostName())) << "nothing stored";
    SaveDisplayName(QStringLiteral("Living Room_TV"));
    test::NoticeRecorder renames(notice::NOTICE_RENAME);
    test::LogRecorder log;
    SettingController dialog;
    dialog.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
    QLineEdit *field = dialog.pcNameTF();
    EXPECT_EQ(field->text(), QStringLiteral("LivingRo"));
    EXPECT_FALSE(field->hasFocus());
    EXPECT_EQ(dialog.windowTitle(), text::kSettingsTitle);
    EXPECT_TRUE(dialog.isModal() || dialog.windowModality() == Qt::ApplicationModal);

    field->setFocus();
    field->selectAll();
    QTest::keyClick(field, Qt::Key_Backspace);
    EXPECT_FALSE(dialog.confirmBtn()->isEnabled());
    EXPECT_GE(log.count(text::kNameRequired), 1);
    dialog.confirmBtnAction(); // the button is off; the action refuses as well
    EXPECT_EQ(renames.count(), 0);
    EXPECT_TRUE(dialog.isVisible());

    QTest::keyClicks(field, QStringLiteral("My Mac_2!"));
    EXPECT_EQ(field->text(), QStringLiteral("MyMac2"));
    EXPECT_TRUE(dialog.confirmBtn()->isEnabled());
    EXPECT_FALSE(field->isUndoAvailable()) << "the filtering is not undoable";
    QTest::keyClicks(field, QStringLiteral("xyz"));
    // A character typed in the middle is kept where it was typed.
    field->setCursorPosition(2);
    QTest::keyClicks(field, QStringLiteral("!"));
    EXPECT_EQ(field->text(), QStringLiteral("MyMac2xy"));
    EXPECT_EQ(field->cursorPosition(), 2);
}

TEST_F(SettingControllerTest, CancelChangesNothingConfirmSavesRenamesAndAppliesStartAtLogin)
{
    SaveDisplayName(QStringLiteral("书房"));
    test::NoticeRecorder renames(notice::NOTICE_RENAME);
    test::LogRecorder log;
    {
        SettingController cancelled;
        cancelled.show();
        cancelled.pcNameTF()->setFocus();
        cancelled.pcNameTF()->selectAll();
        QTest::keyClicks(cancelled.pcNameTF(), QStringLiteral("Other"));
        cancelled.powerBtn()->setChecked(true);
        QTest::mouseClick(cancelled.cancelBtn(), Qt::LeftButton);
        EXPECT_EQ(cancelled.result(), QDialog::Rejected);
        EXPECT_EQ(renames.count(), 0);
        EXPECT_EQ(CurrentDisplayName(), QStringLiteral("书房"));
        EXPECT_FALSE(AppStartManager::isStartAtLogin());
    }
    SettingController dialog;
    dialog.show();
    ASSERT_FALSE(dialog.powerBtn()->isChecked());
    QTest::mouseClick(dialog.powerBtn(), Qt::LeftButton, {}, QPoint(8, dialog.powerBtn()->height() / 2));
    EXPECT_TRUE(dialog.isAutoStart());
    EXPECT_EQ(log.count(QStringLiteral("开机自启动状态1,")), 2) << "once in the cancelled window too";
    EXPECT_FALSE(AppStartManager::isStartAtLogin()) << "nothing is applied before confirm";

    // The name is unchanged: confirm still announces it.
    QTest::mouseClick(dialog.confirmBtn(), Qt::LeftButton);
    ASSERT_EQ(renames.count(), 1);
    EXPECT_EQ(renames.objects.front(), QVariant(QStringLiteral("书房")));
    EXPECT_TRUE(AppStartManager::isStartAtLogin());
    EXPECT_EQ(dialog.result(), QDialog::Accepted);

    // A new window reads the switch back; turning it off on confirm removes the entry.
    SettingController again;
    EXPECT_TRUE(again.powerBtn()->isChecked());
    again.powerBtn()->setChecked(false);
    again.confirmBtnAction();
    EXPECT_FALSE(AppStartManager::isStartAtLogin());
    EXPECT_EQ(renames.count(), 2);
}

} // namespace
} // namespace velocast
