// main() of the window test executables: a QApplication (offscreen or under Xvfb) and a
// preferences location of the test run's own, never the user's.
#include <QApplication>
#include <QTemporaryDir>

#include "support/sanitizer_defaults.h"

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    QTemporaryDir config;
    setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    if (!std::getenv("QT_LOGGING_RULES")) setenv("QT_LOGGING_RULES", "velocast.*.info=false", 1);
    if (!std::getenv("QT_QPA_PLATFORM")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
