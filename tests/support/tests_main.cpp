// main() of the test executables. With Qt: an application, preferences of the run's own (never
// the user's) and the offscreen platform unless QT_QPA_PLATFORM says otherwise.
#include <gtest/gtest.h>

#if defined(VELOCAST_TEST_WIDGETS)
#include <QApplication>
using App = QApplication;
#elif defined(VELOCAST_TEST_CORE)
#include <QCoreApplication>
using App = QCoreApplication;
#endif
#ifndef VELOCAST_TEST_PLAIN
#include <QTemporaryDir>
#endif

#include <cstdlib>

// GLib and GStreamer have no frame pointers: the slow unwinder gives the stacks lsan.supp names.
extern "C" __attribute__((used)) const char *__asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" __attribute__((used)) const char *__lsan_default_suppressions() { return VELOCAST_LSAN_SUPPRESSIONS; }

int main(int argc, char **argv)
{
#ifndef VELOCAST_TEST_PLAIN
    QTemporaryDir config;
    // Before anything touches QSettings or QStandardPaths.
    setenv("XDG_CONFIG_HOME", config.path().toLocal8Bit().constData(), 1);
    if (!std::getenv("QT_LOGGING_RULES")) setenv("QT_LOGGING_RULES", "velocast.*.info=false", 1);
    if (!std::getenv("QT_QPA_PLATFORM")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
    App app(argc, argv);
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
