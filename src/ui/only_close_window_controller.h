#pragma once

#include <QObject>
#include <QPointer>

class QWidget;

namespace velocast {

// Window chrome with a close button only: the window has a title bar and a close button,
// no minimise or maximise button, and can be moved by dragging its background.
// Owned by the window it dresses (its QObject parent).
class OnlyCloseWindowController : public QObject {
    Q_OBJECT
public:
    explicit OnlyCloseWindowController(QWidget *window);
    QWidget *window() const { return window_; }

private:
    void windowDidLoad();
    QPointer<QWidget> window_;
};

} // namespace velocast
