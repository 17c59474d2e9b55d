#pragma once

#include <QObject>
#include <QPointer>

class QWidget;

namespace velocast {

// Window chrome without a maximise button and with an empty title, movable by dragging
// its background. (On X11 the window manager draws the title-bar buttons; it shows the
// application name for an empty title, and the buttons cannot be lowered into the content
// as a self-drawn title bar would allow, so that part of the look is left to the manager.)
// Owned by the window it dresses (its QObject parent).
class NOStantardButtonWindowController : public QObject {
    Q_OBJECT
public:
    explicit NOStantardButtonWindowController(QWidget *window);
    QWidget *window() const { return window_; }

private:
    void windowDidLoad();
    QPointer<QWidget> window_;
};

} // namespace velocast
