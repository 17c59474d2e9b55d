#pragma once

#include "common/notification_center.h"
#include "support/log_recorder.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QMouseEvent>
#include <QPointer>
#include <QWidget>

namespace velocast::test {

// Counts the posts of one notification and keeps their objects.
class NoticeRecorder {
public:
    explicit NoticeRecorder(const char *name)
        : observation_(NotificationCenter::defaultCenter().addObserver(
            QString::fromLatin1(name), [this](const QVariant &object) { objects.push_back(object); }))
    { }
    int count() const { return int(objects.size()); }
    std::vector<QVariant> objects;

private:
    Observation observation_;
};

// Runs the event loop until the object is gone. Objects released with deleteLater() from the
// test body (no event loop running) are deleted only when deferred deletes are sent.
template <typename T>
bool waitDeleted(const QPointer<T> &object, std::chrono::milliseconds timeout = std::chrono::seconds(5))
{
    return waitUntil(
        [&] {
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            return object.isNull();
        },
        timeout);
}

// Sends a mouse event straight to a widget, at a point in its own coordinates.
inline void sendMouse(QWidget *w, QEvent::Type type, QPoint local, Qt::MouseButtons held)
{
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, QPointF(local), QPointF(w->mapToGlobal(local)), button, held, Qt::NoModifier);
    QCoreApplication::sendEvent(w, &event);
}

} // namespace velocast::test
