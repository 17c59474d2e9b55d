#include "common/preferences.h"

#include "support/test_support.h"

#include <QSettings>

#include <gtest/gtest.h>

namespace velocast {
namespace {

TEST(Preferences, DisplayNameFallsBackToHostNameUnlessAStringIsStored)
{
    const QString name = QStringLiteral("客厅的电脑 #1;a,b");
    SaveDisplayName(name);
    EXPECT_EQ(CurrentDisplayName(), name);
    EXPECT_EQ(QSettings(Preferences::fileName(), QSettings::IniFormat).value(prefkey::USERNAME), name);
    ASSERT_FALSE(LocalizedHostName().isEmpty());
    for (const QVariant &unusable : {QVariant(), QVariant(QString()), QVariant(QStringList{"a", "b"})}) {
        Preferences::setValue(prefkey::USERNAME, unusable);
        EXPECT_EQ(CurrentDisplayName(), LocalizedHostName());
    }
    Preferences::remove(prefkey::USERNAME);
}

} // namespace
} // namespace velocast
