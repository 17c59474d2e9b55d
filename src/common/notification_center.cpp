#include "common/notification_center.h"

#include <algorithm>

namespace velocast {

struct Observation::Entry {
    NotificationCenter *center = nullptr;
    QString name;
    NotificationCenter::Callback callback;
    // Held while the callback runs; recursive so that a callback may remove itself.
    std::recursive_mutex runMutex;
    bool alive = true; // guarded by runMutex
};

Observation::Observation(Observation &&other) noexcept : entry_(std::move(other.entry_)) { }

Observation &Observation::operator=(Observation &&other) noexcept
{
    if (this != &other) {
        reset();
        entry_ = std::move(other.entry_);
    }
    return *this;
}

Observation::~Observation() { reset(); }

void Observation::reset()
{
    if (!entry_) return;
    std::shared_ptr<Entry> entry = std::move(entry_);
    entry->center->remove(entry.get());
    // Waits for a delivery running on another thread to finish.
    std::lock_guard lock(entry->runMutex);
    entry->alive = false;
}

NotificationCenter &NotificationCenter::defaultCenter()
{
    static NotificationCenter center;
    return center;
}

Observation NotificationCenter::addObserver(const QString &name, Callback callback)
{
    auto entry = std::make_shared<Observation::Entry>();
    entry->center = this;
    entry->name = name;
    entry->callback = std::move(callback);
    std::lock_guard lock(mutex_);
    entries_.push_back(entry);
    return Observation(entry);
}

void NotificationCenter::remove(const Observation::Entry *entry)
{
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [entry](const auto &e) { return e.get() == entry; });
}

void NotificationCenter::post(const QString &name, const QVariant &object)
{
    std::vector<std::shared_ptr<Observation::Entry>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto &e : entries_) {
            if (e->name == name) targets.push_back(e);
        }
    }
    for (const auto &e : targets) {
        std::lock_guard run(e->runMutex);
        if (e->alive && e->callback) e->callback(object);
    }
}

int NotificationCenter::observerCount(const QString &name) const
{
    std::lock_guard lock(mutex_);
    return int(std::count_if(entries_.begin(), entries_.end(), [&](const auto &e) { return e->name == name; }));
}

} // namespace velocast
