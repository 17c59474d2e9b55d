// main() of the Qt-based test executables: a QCoreApplication on the main thread and a
// preferences location of the test run's own, never the user's.
#include <QCoreApplication>
#include <QTemporaryDir>

#include "support/sanitizer_defaults.h"

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    QTemporaryDir config;
    // Before anything touches QSettings or QStandardPaths.
    setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    if (!std::getenv("QT_LOGGING_RULES")) setenv("QT_LOGGING_RULES", "velocast.*.info=false", 1);
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
