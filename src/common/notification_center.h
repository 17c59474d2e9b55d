#pragma once

#include <QString>
#include <QVariant>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace velocast {

class NotificationCenter;

// Keeps one observer registered for as long as it lives. Destroy it (or call reset())
// to stop observing; after reset() returns no delivery to this observer is running on
// another thread and none will start. Move-only.
class Observation {
public:
    Observation() = default;
    Observation(Observation &&other) noexcept;
    Observation &operator=(Observation &&other) noexcept;
    Observation(const Observation &) = delete;
    Observation &operator=(const Observation &) = delete;
    ~Observation();

    void reset();
    bool isActive() const { return static_cast<bool>(entry_); }

private:
    friend class NotificationCenter;
    struct Entry;
    explicit Observation(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) { }
    std::shared_ptr<Entry> entry_;
};

// The process-wide notification centre. Named notifications carry one QVariant object
// (a QVariantMap, QVariantList, QString, or an invalid QVariant for "none").
// post() delivers synchronously, on the posting thread, to every observer of that name
// in registration order. Registering, removing and posting are safe from any thread, and
// an observer may remove itself (or others) from inside its callback.
class NotificationCenter {
public:
    using Callback = std::function<void(const QVariant &object)>;

    static NotificationCenter &defaultCenter();

    [[nodiscard]] Observation addObserver(const QString &name, Callback callback);
    void post(const QString &name, const QVariant &object = QVariant());

    // Number of live observers of a name (for diagnostics and tests).
    int observerCount(const QString &name) const;

private:
    friend class Observation;
    void remove(const Observation::Entry *entry);

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Observation::Entry>> entries_;
};

} // namespace velocast
