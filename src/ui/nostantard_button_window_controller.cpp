#include "ui/nostantard_button_window_controller.h"

#include "ui/window_button_tool.h"
#include "ui/window_drag.h"

#include <QWidget>

namespace velocast {

NOStantardButtonWindowController::NOStantardButtonWindowController(QWidget *window)
    : QObject(window)
    , window_(window)
{
    windowDidLoad();
}

void NOStantardButtonWindowController::windowDidLoad()
{
    new BackgroundWindowMover(window_); // owned by the window
    const Qt::WindowFlags type = (window_->windowFlags() & Qt::WindowType_Mask) | Qt::Window;
    applyWindowFlags(window_,
        type | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint | Qt::WindowCloseButtonHint
            | Qt::WindowMinimizeButtonHint);
    window_->setWindowTitle(QString());
}

} // namespace velocast
