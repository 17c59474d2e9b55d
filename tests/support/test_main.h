// main() of the Qt-based test executables (include from the main file only): an application
// of type App on the main thread, a preferences location of the test run's own, never the
// user's, and the offscreen platform unless QT_QPA_PLATFORM says otherwise.
#pragma once

#include "support/sanitizer_defaults.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

template <typename App>
int runTests(int argc, char **argv)
{
    QTemporaryDir config;
    // Before anything touches QSettings or QStandardPaths.
    setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    if (!std::getenv("QT_LOGGING_RULES")) setenv("QT_LOGGING_RULES", "velocast.*.info=false", 1);
    if (!std::getenv("QT_QPA_PLATFORM")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
    App app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
