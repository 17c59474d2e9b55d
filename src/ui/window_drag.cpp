#include "ui/window_drag.h"

#include <QMouseEvent>
#include <QWidget>
#include <QWindow>

namespace velocast {

bool WindowDragger::press(QWidget *w, QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) return false;
    QWidget *top = w->window();
    if (QWindow *handle = top->windowHandle(); handle && handle->startSystemMove()) return true;
    window_ = top;
    offset_ = event->globalPosition().toPoint() - top->pos();
    return true;
}

bool WindowDragger::move(QMouseEvent *event)
{
    if (!window_ || !(event->buttons() & Qt::LeftButton)) return false;
    window_->move(event->globalPosition().toPoint() - offset_);
    return true;
}

void WindowDragger::release()
{
    window_.clear();
}

BackgroundWindowMover::BackgroundWindowMover(QWidget *window)
    : QObject(window)
{
    window->installEventFilter(this);
}

bool BackgroundWindowMover::eventFilter(QObject *watched, QEvent *event)
{
    auto *w = static_cast<QWidget *>(parent());
    if (watched != w) return false;
    switch (event->type()) {
    case QEvent::MouseButtonPress:
        return dragger_.press(w, static_cast<QMouseEvent *>(event));
    case QEvent::MouseMove:
        return dragger_.move(static_cast<QMouseEvent *>(event));
    case QEvent::MouseButtonRelease:
        if (!dragger_.isDragging()) return false;
        dragger_.release();
        return true;
    default:
        return false;
    }
}

} // namespace velocast
