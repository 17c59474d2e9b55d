#include "common/preferences.h"

#include <QSettings>

#include "support/test_support.h"

#include <gtest/gtest.h>

using namespace velocast;

namespace {

TEST(Preferences, DisplayNameFallsBackToHostNameUnlessAStringIsStored)
{
    Preferences::remove(prefkey::USERNAME);
    const QString host = LocalizedHostName();
    EXPECT_FALSE(host.isEmpty());
    EXPECT_EQ(CurrentDisplayName(), host);

    SaveDisplayName(QStringLiteral("客厅的电脑 #1;a,b"));
    EXPECT_EQ(CurrentDisplayName(), QStringLiteral("客厅的电脑 #1;a,b"));
    // Round-trips through the file too.
    QSettings raw(Preferences::fileName(), QSettings::IniFormat);
    EXPECT_EQ(raw.value(prefkey::USERNAME).toString(), QStringLiteral("客厅的电脑 #1;a,b"));

    for (const QVariant &unusable : {QVariant(QString()), QVariant(QStringList{"a", "b"})}) {
        Preferences::setValue(prefkey::USERNAME, unusable);
        EXPECT_EQ(CurrentDisplayName(), host);
    }
    Preferences::remove(prefkey::USERNAME);
}

} // namespace
