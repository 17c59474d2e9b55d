#pragma once

#include "common/notification_center.h"
#include "support/log_recorder.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QMouseEvent>
#include <QPointer>
#include <QWidget>

namespace velocast::test {

// Keeps the objects of the posts of one notification.
struct NoticeRecorder {
    explicit NoticeRecorder(const char *name)
        : observation(NotificationCenter::defaultCenter().addObserver(
            QString::fromLatin1(name), [this](const QVariant &object) { objects.push_back(object); }))
    { }
    int count() const { return int(objects.size()); }
    std::vector<QVariant> objects;
    Observation observation;
};

// Runs the event loop, deferred deletes included, until the object is gone.
template <typename T>
bool waitDeleted(const QPointer<T> &object)
{
    return waitUntil([&] {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return object.isNull();
    });
}

// Sends a mouse event straight to a widget, at a point in its own coordinates.
inline void sendMouse(QWidget *w, QEvent::Type type, QPoint local, Qt::MouseButtons held)
{
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, QPointF(local), QPointF(w->mapToGlobal(local)), button, held, Qt::NoModifier);
    QCoreApplication::sendEvent(w, &event);
}

} // namespace velocast::test
