#pragma once

#include "common/log.h"
#include "common/notification_center.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QMouseEvent>
#include <QPointer>
#include <QStringList>
#include <QWidget>

#include <memory>
#include <mutex>

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

// Collects the lines written through logLine while it lives.
class LogRecorder {
public:
    LogRecorder()
    {
        previous_ = setLogTap([lines = lines_](const char *, const QString &text) {
            std::lock_guard lock(lines->mutex);
            lines->list << text;
        });
    }
    ~LogRecorder() { setLogTap(previous_); }
    QStringList lines() const
    {
        std::lock_guard lock(lines_->mutex);
        return lines_->list;
    }
    int count(const QString &line) const { return int(lines().count(line)); }

private:
    struct Lines {
        mutable std::mutex mutex;
        QStringList list;
    };
    std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
    LogTap previous_;
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
