#include "Extend/CommonTool/Airplay/AirplayDNSRegistration/qt_avahi_poll.h"

#include <avahi-common/timeval.h>

#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>

// Avahi declares these two types and leaves their contents to the poll implementation.
struct AvahiWatch {
    int fd = -1;
    AvahiWatchEvent events = AvahiWatchEvent(0);
    AvahiWatchEvent fired = AvahiWatchEvent(0);
    AvahiWatchCallback callback = nullptr;
    void *userdata = nullptr;
    QSocketNotifier *read = nullptr;
    QSocketNotifier *write = nullptr;
};

struct AvahiTimeout {
    QTimer *timer = nullptr;
    AvahiTimeoutCallback callback = nullptr;
    void *userdata = nullptr;
};

namespace velocast {

namespace {

// Notifiers and timers may be freed from inside their own signal: they are disabled at once
// and deleted later; the callbacks never touch the Avahi object after calling back.
void retire(QObject *object)
{
    if (object) object->deleteLater();
}

void fire(AvahiWatch *w, AvahiWatchEvent event)
{
    w->fired = event;
    // The callback may free w.
    w->callback(w, w->fd, event, w->userdata);
}

void applyEvents(AvahiWatch *w, AvahiWatchEvent events)
{
    w->events = events;
    const bool wantRead = events & (AVAHI_WATCH_IN | AVAHI_WATCH_HUP | AVAHI_WATCH_ERR);
    if (wantRead && !w->read) {
        w->read = new QSocketNotifier(w->fd, QSocketNotifier::Read);
        QObject::connect(w->read, &QSocketNotifier::activated, w->read, [w] { fire(w, AVAHI_WATCH_IN); });
    }
    if ((events & AVAHI_WATCH_OUT) && !w->write) {
        w->write = new QSocketNotifier(w->fd, QSocketNotifier::Write);
        QObject::connect(w->write, &QSocketNotifier::activated, w->write, [w] { fire(w, AVAHI_WATCH_OUT); });
    }
    if (w->read) w->read->setEnabled(wantRead);
    if (w->write) w->write->setEnabled(events & AVAHI_WATCH_OUT);
}

AvahiWatch *watchNew(const AvahiPoll *, int fd, AvahiWatchEvent event, AvahiWatchCallback callback, void *userdata)
{
    auto *w = new AvahiWatch;
    w->fd = fd;
    w->callback = callback;
    w->userdata = userdata;
    applyEvents(w, event);
    return w;
}

void watchUpdate(AvahiWatch *w, AvahiWatchEvent event)
{
    applyEvents(w, event);
}

AvahiWatchEvent watchGetEvents(AvahiWatch *w)
{
    return w->fired;
}

void watchFree(AvahiWatch *w)
{
    for (QSocketNotifier *n : {w->read, w->write}) {
        if (!n) continue;
        n->setEnabled(false);
        QObject::disconnect(n, nullptr, nullptr, nullptr);
        retire(n);
    }
    delete w;
}

void armTimeout(AvahiTimeout *t, const struct timeval *tv)
{
    if (!tv) {
        t->timer->stop();
        return;
    }
    // avahi_age is negative while tv lies in the future.
    const AvahiUsec left = -avahi_age(tv);
    const AvahiUsec ms = std::clamp<AvahiUsec>((left + 999) / 1000, 0, 24LL * 3600 * 1000);
    t->timer->start(int(ms));
}

AvahiTimeout *timeoutNew(const AvahiPoll *, const struct timeval *tv, AvahiTimeoutCallback callback, void *userdata)
{
    auto *t = new AvahiTimeout;
    t->callback = callback;
    t->userdata = userdata;
    t->timer = new QTimer;
    t->timer->setSingleShot(true);
    t->timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(t->timer, &QTimer::timeout, t->timer, [t] { t->callback(t, t->userdata); });
    armTimeout(t, tv);
    return t;
}

void timeoutUpdate(AvahiTimeout *t, const struct timeval *tv)
{
    armTimeout(t, tv);
}

void timeoutFree(AvahiTimeout *t)
{
    t->timer->stop();
    QObject::disconnect(t->timer, nullptr, nullptr, nullptr);
    retire(t->timer);
    delete t;
}

} // namespace

const AvahiPoll *qtAvahiPoll()
{
    static const AvahiPoll poll{nullptr, watchNew, watchUpdate, watchGetEvents, watchFree, timeoutNew, timeoutUpdate,
        timeoutFree};
    return &poll;
}

} // namespace velocast
