#include "ui/window_button_tool.h"

#include <QApplication>
#include <QVariant>
#include <QWidget>
#include <QWindow>

namespace velocast {

namespace {
// Where the flags from before hiding are kept, on the window itself.
constexpr char kFlagsBeforeHiding[] = "velocast_flagsBeforeHidingButtons";
constexpr Qt::WindowFlags kButtonHints
    = Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint | Qt::WindowMaximizeButtonHint;
} // namespace

void applyWindowFlags(QWidget *window, Qt::WindowFlags flags)
{
    window->overrideWindowFlags(flags);
    if (QWindow *handle = window->windowHandle()) handle->setFlags(flags);
}

bool WindowButtonTool::windowButtonIsHidden()
{
    return windowButtonIsHidden(QApplication::activeWindow());
}
void WindowButtonTool::setWindowButtonHidden(bool hidden)
{
    setWindowButtonHidden(QApplication::activeWindow(), hidden);
}
void WindowButtonTool::hiddenWindowButton()
{
    hiddenWindowButton(QApplication::activeWindow());
}
void WindowButtonTool::showWindowButton()
{
    showWindowButton(QApplication::activeWindow());
}

bool WindowButtonTool::windowButtonIsHidden(QWidget *window)
{
    if (!window) return false;
    const Qt::WindowFlags flags = window->window()->windowFlags();
    return flags.testFlag(Qt::CustomizeWindowHint) && !(flags & kButtonHints);
}

void WindowButtonTool::setWindowButtonHidden(QWidget *window, bool hidden)
{
    if (hidden)
        hiddenWindowButton(window);
    else
        showWindowButton(window);
}

void WindowButtonTool::hiddenWindowButton(QWidget *window)
{
    if (!window || windowButtonIsHidden(window)) return;
    QWidget *top = window->window();
    const Qt::WindowFlags flags = top->windowFlags();
    top->setProperty(kFlagsBeforeHiding, QVariant::fromValue(int(flags)));
    applyWindowFlags(top, (flags & ~kButtonHints) | Qt::CustomizeWindowHint | Qt::WindowTitleHint);
}

void WindowButtonTool::showWindowButton(QWidget *window)
{
    if (!window || !windowButtonIsHidden(window)) return;
    QWidget *top = window->window();
    const QVariant before = top->property(kFlagsBeforeHiding);
    top->setProperty(kFlagsBeforeHiding, QVariant());
    Qt::WindowFlags flags = top->windowFlags() | kButtonHints;
    if (before.isValid()) flags = Qt::WindowFlags::fromInt(before.toInt());
    applyWindowFlags(top, flags);
}

} // namespace velocast
