// The device model on libpulse (PulseAudio, or PipeWire through its PulseAudio interface).
//
//   device identifier  the sink's index (outputs; 'dIn ' answers with a source's index)
//   'uid '             the sink's name          'lnam'  its description
//   'lmak'             device.vendor.name       'dev#'  the sinks, in the server's order
//   'dOut' / 'dIn '    posted when the server's default sink / source name really changed:
//                      PulseAudio reports a server change even when the default is set to
//                      what it already was, so an unconditional reaction would loop
//   'sOut'             never posted: the server has no separate system output
//
// Calls off the notification thread wait for the server's answer. On that thread they
// cannot (the answer comes through it), so reads fail there with PA_ERR_BADSTATE and the
// default switch is sent without waiting, its status reported when the answer comes.
#include "capture/audio/audio_hardware.h"
#include "capture/audio/linux/pulse_connection.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace velocast::capture {

namespace {

using namespace audio_property;

struct Device {
    uint32_t index = PA_INVALID_INDEX;
    std::string name;
    std::string description;
    std::optional<std::string> vendor;
};

struct Query {
    explicit Query(PulseConnection *c) : connection(c) { }
    PulseConnection *connection;
    bool done = false;
    bool failed = false;
    std::vector<Device> devices;
    std::string defaultSink;
    std::string defaultSource;
};

template <typename Info>
void collect(const Info *info, int eol, void *data)
{
    auto *q = static_cast<Query *>(data);
    if (eol) {
        q->failed = eol < 0;
        q->done = true;
        q->connection->wake();
        return;
    }
    Device d;
    d.index = info->index;
    d.name = info->name ? info->name : "";
    d.description = info->description ? info->description : "";
    if (const char *vendor = pa_proplist_gets(info->proplist, PA_PROP_DEVICE_VENDOR_NAME)) d.vendor = vendor;
    q->devices.push_back(std::move(d));
}
void onSink(pa_context *, const pa_sink_info *info, int eol, void *data) { collect(info, eol, data); }
void onSource(pa_context *, const pa_source_info *info, int eol, void *data) { collect(info, eol, data); }
void onServer(pa_context *, const pa_server_info *info, void *data)
{
    auto *q = static_cast<Query *>(data);
    if (info) {
        q->defaultSink = info->default_sink_name ? info->default_sink_name : "";
        q->defaultSource = info->default_source_name ? info->default_source_name : "";
    } else {
        q->failed = true;
    }
    q->done = true;
    q->connection->wake();
}
void onSuccess(pa_context *, int success, void *data)
{
    auto *q = static_cast<Query *>(data);
    q->failed = !success;
    q->done = true;
    q->connection->wake();
}

class PulseAudioHardware final : public AudioHardware {
public:
    int32_t idListSize(uint32_t selector, uint32_t *bytes) override
    {
        std::vector<AudioObjectID> ids;
        const int32_t status = idList(selector, &ids);
        if (status == 0) *bytes = uint32_t(ids.size() * sizeof(AudioObjectID));
        return status;
    }

    int32_t idListData(uint32_t selector, uint32_t *bytes, void *out) override
    {
        std::vector<AudioObjectID> ids;
        const int32_t status = idList(selector, &ids);
        if (status != 0) return status;
        const size_t count = std::min<size_t>(ids.size(), *bytes / sizeof(AudioObjectID));
        if (count) std::memcpy(out, ids.data(), count * sizeof(AudioObjectID));
        *bytes = uint32_t(count * sizeof(AudioObjectID));
        return 0;
    }

    int32_t deviceForUID(const QString &uid, AudioObjectID *device) override
    {
        *device = kUnknownObject;
        std::shared_ptr<PulseConnection> c;
        if (const int32_t status = connection(&c)) return status;
        PulseConnection::Lock lock(*c);
        Query q{c.get()};
        const QByteArray name = uid.toUtf8();
        if (!c->wait(pa_context_get_sink_info_by_name(c->context(), name.constData(), onSink, &q), &q.done)) return failure(*c);
        if (q.failed) return pa_context_errno(c->context()) == PA_ERR_NOENTITY ? 0 : pa_context_errno(c->context());
        if (!q.devices.empty()) *device = q.devices.front().index;
        return 0;
    }

    int32_t deviceString(AudioObjectID device, uint32_t selector, QString *value) override
    {
        *value = QString();
        if (selector != kName && selector != kManufacturer && selector != kDeviceUID) return PA_ERR_NOTSUPPORTED;
        std::optional<Device> d;
        if (const int32_t status = sink(device, &d)) return status;
        if (!d) return PA_ERR_NOENTITY;
        if (selector == kName) *value = QString::fromStdString(d->description);
        if (selector == kDeviceUID) *value = QString::fromStdString(d->name);
        if (selector == kManufacturer && d->vendor) *value = QString::fromStdString(*d->vendor);
        return 0;
    }

    void setDefaultDevice(uint32_t selector, AudioObjectID device, StatusBlock done) override
    {
        if (selector != kDefaultOutputDevice && selector != kDefaultInputDevice) return done(PA_ERR_NOTSUPPORTED);
        PulseConnection *current = current_.load();
        if (current && current->inLoopThread()) return switchFromLoop(this, current, selector, device, std::move(done));
        std::shared_ptr<PulseConnection> c;
        if (const int32_t status = connection(&c)) return done(status);
        PulseConnection::Lock lock(*c);
        Query q{c.get()};
        pa_context *ctx = c->context();
        const bool output = selector == kDefaultOutputDevice;
        pa_operation *op = output ? pa_context_get_sink_info_by_index(ctx, device, onSink, &q)
                                  : pa_context_get_source_info_by_index(ctx, device, onSource, &q);
        if (!c->wait(op, &q.done)) return done(failure(*c));
        if (q.failed || q.devices.empty()) return done(PA_ERR_NOENTITY);
        Query set{c.get()};
        const std::string name = q.devices.front().name;
        op = output ? pa_context_set_default_sink(ctx, name.c_str(), onSuccess, &set)
                    : pa_context_set_default_source(ctx, name.c_str(), onSuccess, &set);
        if (!c->wait(op, &set.done)) return done(failure(*c));
        if (!set.failed) remember(output, name);
        done(set.failed ? pa_context_errno(ctx) : 0);
    }

    int32_t addListener(Listener listener) override
    {
        std::shared_ptr<PulseConnection> c;
        if (const int32_t status = connection(&c)) return status;
        {
            std::lock_guard guard(mutex_);
            PulseConnection::Lock lock(*c);
            listener_ = std::make_shared<Listener>(std::move(listener));
        }
        return subscribe(*c);
    }

    int32_t removeListener() override
    {
        std::shared_ptr<PulseConnection> c;
        if (const int32_t status = connection(&c)) return status;
        std::lock_guard guard(mutex_);
        PulseConnection::Lock lock(*c);
        if (!listener_) return PA_ERR_NOENTITY;
        listener_.reset();
        Query q{c.get()};
        if (!c->wait(pa_context_subscribe(c->context(), PA_SUBSCRIPTION_MASK_NULL, onSuccess, &q), &q.done)) return failure(*c);
        return q.failed ? pa_context_errno(c->context()) : 0;
    }

private:
    static int32_t failure(const PulseConnection &c)
    {
        const int error = pa_context_errno(c.context());
        return error ? error : PA_ERR_CONNECTIONTERMINATED;
    }

    // The connection, made again when the server has gone since the last call.
    int32_t connection(std::shared_ptr<PulseConnection> *out)
    {
        PulseConnection *current = current_.load();
        if (current && current->inLoopThread()) return PA_ERR_BADSTATE; // see the top of the file
        std::lock_guard guard(mutex_);
        if (!connection_ || !connection_->isReady()) {
            current_.store(nullptr);
            connection_.reset();
            auto c = std::make_shared<PulseConnection>("velocast audio devices");
            c->setEventHandler([this, raw = c.get()](pa_subscription_event_type_t type, uint32_t) { onEvent(raw, type); });
            QString why;
            if (!c->connect(&why)) return PA_ERR_CONNECTIONREFUSED;
            connection_ = c;
            current_.store(c.get());
            // A listener installed before the server went keeps listening on the new connection.
            if (listener_ && subscribe(*c) != 0) return failure(*c);
        }
        *out = connection_;
        return 0;
    }

    int32_t subscribe(PulseConnection &c)
    {
        PulseConnection::Lock lock(c);
        Query info{&c};
        if (!c.wait(pa_context_get_server_info(c.context(), onServer, &info), &info.done)) return failure(c);
        // A default we switched to ourselves stays what reports are compared with: the server
        // may not show it yet (PipeWire's session manager applies it a moment later), and an
        // outside change back to the old default would then look like no change at all.
        if (defaultSink_.empty()) defaultSink_ = info.defaultSink;
        if (defaultSource_.empty()) defaultSource_ = info.defaultSource;
        Query q{&c};
        const auto mask = pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE);
        if (!c.wait(pa_context_subscribe(c.context(), mask, onSuccess, &q), &q.done)) return failure(c);
        return q.failed ? pa_context_errno(c.context()) : 0;
    }

    int32_t idList(uint32_t selector, std::vector<AudioObjectID> *ids)
    {
        if (selector != kDevices && selector != kDefaultOutputDevice && selector != kDefaultInputDevice) return PA_ERR_NOTSUPPORTED;
        std::shared_ptr<PulseConnection> c;
        if (const int32_t status = connection(&c)) return status;
        PulseConnection::Lock lock(*c);
        pa_context *ctx = c->context();
        Query q{c.get()};
        if (selector == kDevices) {
            if (!c->wait(pa_context_get_sink_info_list(ctx, onSink, &q), &q.done) || q.failed) return failure(*c);
        } else {
            Query info{c.get()};
            if (!c->wait(pa_context_get_server_info(ctx, onServer, &info), &info.done) || info.failed) return failure(*c);
            const std::string &name = selector == kDefaultOutputDevice ? info.defaultSink : info.defaultSource;
            if (name.empty()) return 0; // no default at all: an empty list
            pa_operation *op = selector == kDefaultOutputDevice ? pa_context_get_sink_info_by_name(ctx, name.c_str(), onSink, &q)
                                                                : pa_context_get_source_info_by_name(ctx, name.c_str(), onSource, &q);
            if (!c->wait(op, &q.done)) return failure(*c);
            // A default that names a device that is gone (it happens during a change): none.
        }
        for (const Device &d : q.devices) ids->push_back(d.index);
        return 0;
    }

    int32_t sink(AudioObjectID device, std::optional<Device> *out)
    {
        std::shared_ptr<PulseConnection> c;
        if (const int32_t status = connection(&c)) return status;
        PulseConnection::Lock lock(*c);
        Query q{c.get()};
        if (!c->wait(pa_context_get_sink_info_by_index(c->context(), device, onSink, &q), &q.done)) return failure(*c);
        if (!q.devices.empty()) *out = q.devices.front();
        return 0;
    }

    // On the notification thread: look the device up and switch without waiting. A lookup
    // by index answers with the device and then once more with the end of the list.
    struct Switch {
        PulseAudioHardware *self;
        bool output;
        StatusBlock done;
        bool handedOn = false;
    };
    static void switchFromLoop(PulseAudioHardware *self, PulseConnection *c, uint32_t selector, AudioObjectID device, StatusBlock done)
    {
        auto *s = new Switch{self, selector == kDefaultOutputDevice, std::move(done)};
        pa_operation *op = s->output ? pa_context_get_sink_info_by_index(c->context(), device, switchFound<pa_sink_info>, s)
                                     : pa_context_get_source_info_by_index(c->context(), device, switchFound<pa_source_info>, s);
        if (op) {
            pa_operation_unref(op);
        } else {
            s->done(pa_context_errno(c->context()));
            delete s;
        }
    }
    template <typename Info>
    static void switchFound(pa_context *ctx, const Info *info, int eol, void *data)
    {
        auto *s = static_cast<Switch *>(data);
        if (eol == 0) {
            if (s->handedOn) return;
            s->handedOn = true;
            // Taken as done: a switch the server refuses shows up as a default that differs
            // from this one at the next report, and is reported again.
            s->self->remember(s->output, info->name);
            auto *set = new StatusBlock(std::move(s->done));
            pa_operation *op = s->output ? pa_context_set_default_sink(ctx, info->name, switchDone, set)
                                         : pa_context_set_default_source(ctx, info->name, switchDone, set);
            if (op) {
                pa_operation_unref(op);
            } else {
                (*set)(pa_context_errno(ctx));
                delete set;
            }
            return;
        }
        if (!s->handedOn) s->done(eol < 0 ? pa_context_errno(ctx) : PA_ERR_NOENTITY);
        delete s;
    }
    static void switchDone(pa_context *ctx, int success, void *data)
    {
        auto *done = static_cast<StatusBlock *>(data);
        (*done)(success ? 0 : pa_context_errno(ctx));
        delete done;
    }

    // On the notification thread, with the loop locked.
    void onEvent(PulseConnection *c, pa_subscription_event_type_t type)
    {
        const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER && kind == PA_SUBSCRIPTION_EVENT_CHANGE) {
            pa_operation *op = pa_context_get_server_info(
                c->context(),
                [](pa_context *, const pa_server_info *info, void *data) {
                    auto *self = static_cast<PulseAudioHardware *>(data);
                    if (info) self->defaultsChanged(info->default_sink_name ? info->default_sink_name : "",
                                                    info->default_source_name ? info->default_source_name : "");
                },
                this);
            if (op) pa_operation_unref(op);
        } else if ((facility == PA_SUBSCRIPTION_EVENT_SINK || facility == PA_SUBSCRIPTION_EVENT_SOURCE)
                   && (kind == PA_SUBSCRIPTION_EVENT_NEW || kind == PA_SUBSCRIPTION_EVENT_REMOVE)) {
            const AudioPropertyAddress changed[] = {{kDevices}};
            notify(changed);
        }
    }

    // A default we set ourselves is the one later reports are compared with. Otherwise, when
    // the server's reports lag (PipeWire's session manager applies a default after the call
    // returns), an outside change back to the previous default can look like no change at
    // all, and a lock would never revert it. With the loop locked.
    void remember(bool output, const std::string &name) { (output ? defaultSink_ : defaultSource_) = name; }

    void defaultsChanged(const std::string &sink, const std::string &source)
    {
        AudioPropertyAddress changed[2];
        size_t n = 0;
        if (sink != defaultSink_) changed[n++] = {kDefaultOutputDevice};
        if (source != defaultSource_) changed[n++] = {kDefaultInputDevice};
        defaultSink_ = sink;
        defaultSource_ = source;
        if (n) notify(std::span<const AudioPropertyAddress>(changed, n));
    }

    void notify(std::span<const AudioPropertyAddress> changed)
    {
        if (std::shared_ptr<Listener> l = listener_) (*l)(changed);
    }

    std::mutex mutex_; // making and replacing the connection
    std::shared_ptr<PulseConnection> connection_;
    std::atomic<PulseConnection *> current_{nullptr};
    // Written under mutex_ and the loop's lock; read under either.
    std::shared_ptr<Listener> listener_;
    std::string defaultSink_;
    std::string defaultSource_;
};

} // namespace

AudioHardware &systemAudioHardware()
{
    // Never destroyed: the notification thread may still deliver while the process exits.
    static auto *hardware = new PulseAudioHardware;
    return *hardware;
}

} // namespace velocast::capture
