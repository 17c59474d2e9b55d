#include "ui/only_close_window_controller.h"

#include "ui/window_button_tool.h"
#include "ui/window_drag.h"

#include <QWidget>

namespace velocast {

OnlyCloseWindowController::OnlyCloseWindowController(QWidget *window)
    : QObject(window)
    , window_(window)
{
    windowDidLoad();
}

void OnlyCloseWindowController::windowDidLoad()
{
    new BackgroundWindowMover(window_); // owned by the window
    const Qt::WindowFlags type = (window_->windowFlags() & Qt::WindowType_Mask) | Qt::Window;
    applyWindowFlags(window_, type | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint);
}

} // namespace velocast
