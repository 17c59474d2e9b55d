#pragma once

#include "common/notification_center.h"
#include "support/log_recorder.h"
#include "support/test_support.h"

#include <QCoreApplication>
#include <QPointer>

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

} // namespace velocast::test
