// Velocast: a desktop sender for wireless screen casting.
#include "Extend/CommonTool/Airplay/air_play_manager.h"
#include "Extend/CommonTool/Airplay/airplay_control.h"
#include "app/app_delegate.h"
#include "app/version.h"
#include "control/net_control.h"
#include "ui/main_window_icons.h"

#include <QApplication>

#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    // Answered before the window system is touched, so they work without a display.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--version") == 0 || std::strcmp(argv[i], "-v") == 0) {
            std::printf("Velocast %s\n", velocast::kVersion);
            return 0;
        }
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("Usage: velocast [--version] [--help]\n"
                        "Casts this computer's screen and sound to a receiver on the same network.\n"
                        "Without options it opens its window (or brings back the one already running).\n");
            return 0;
        }
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Velocast"));
    QApplication::setOrganizationName(QStringLiteral("Velocast"));
    QApplication::setApplicationVersion(QString::fromLatin1(velocast::kVersion));
    QApplication::setDesktopFileName(QStringLiteral("velocast"));
    QApplication::setWindowIcon(velocast::velocastAppIcon());

    velocast::NetControl &control = velocast::NetControl::shareControl();
    // The second casting road listens for the panel from the start.
    velocast::AirplayControl::shareControl();
    int rc = 0;
    {
        velocast::AppDelegate delegate(control);
        if (!delegate.launch()) return 0; // the running instance shows its window instead
        rc = QApplication::exec();
    }
    // Withdraw any advertisement and close the control connection while the event loop's
    // objects still exist.
    velocast::AirPlayManager::sharedManager().disconnect();
    control.disConnect();
    return rc;
}
