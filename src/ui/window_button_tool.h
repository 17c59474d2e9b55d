#pragma once

#include <Qt>

class QWidget;

namespace velocast {

// Hides or shows the title-bar buttons (close, minimise, maximise) of a top-level window.
// On Linux the window manager draws them, so "hidden" means the window asks for a title
// bar without button hints (Qt::CustomizeWindowHint without the *ButtonHint flags); showing
// them again restores the flags the window had before. Main thread only.
class WindowButtonTool {
public:
    // The key window's buttons (QApplication::activeWindow()); no effect and "not hidden"
    // when no window of ours is active.
    static bool windowButtonIsHidden();
    static void setWindowButtonHidden(bool hidden);
    static void hiddenWindowButton();
    static void showWindowButton();

    // The same on a given window (its top-level window is used).
    static bool windowButtonIsHidden(QWidget *window);
    static void setWindowButtonHidden(QWidget *window, bool hidden);
    static void hiddenWindowButton(QWidget *window);
    static void showWindowButton(QWidget *window);
};

// Changes the window flags of a top-level widget in place. QWidget::setWindowFlags() would
// hide a shown window; this tells the platform window directly and keeps it on screen.
void applyWindowFlags(QWidget *window, Qt::WindowFlags flags);

} // namespace velocast
