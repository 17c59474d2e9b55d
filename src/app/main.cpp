// Velocast: a desktop sender for wireless screen casting.
#include "Extend/CommonTool/Airplay/air_play_manager.h"
#include "Extend/CommonTool/Airplay/airplay_control.h"
#include "app/app_delegate.h"
#include "control/net_control.h"
#include "ui/main_window_icons.h"

#include <QApplication>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Velocast"));
    QApplication::setOrganizationName(QStringLiteral("Velocast"));
    QApplication::setApplicationVersion(QStringLiteral(VELOCAST_VERSION));
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
