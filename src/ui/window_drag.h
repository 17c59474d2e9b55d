#pragma once

#include <QObject>
#include <QPoint>
#include <QPointer>

class QMouseEvent;
class QWidget;

namespace velocast {

// Moves a top-level window while the left button is held: through the window manager's
// interactive move where it offers one, otherwise by following the pointer ourselves
// (no window manager, or the offscreen platform).
class WindowDragger {
public:
    // On a left press: starts moving w's window. Returns whether the press was taken.
    bool press(QWidget *w, QMouseEvent *event);
    bool move(QMouseEvent *event);
    void release();
    bool isDragging() const { return !window_.isNull(); }

private:
    QPointer<QWidget> window_; // set only while we follow the pointer ourselves
    QPoint offset_;
};

// Event filter that makes a window movable by its background: a press that no child took
// (labels, backgrounds) starts a window move. Owned by the window it filters.
class BackgroundWindowMover : public QObject {
    Q_OBJECT
public:
    explicit BackgroundWindowMover(QWidget *window);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    WindowDragger dragger_;
};

} // namespace velocast
