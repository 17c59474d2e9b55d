// pulsesrc device=<monitor of the default sink> ! audioconvert ! audioresample
//   ! S16LE 44100 Hz 2 ch ! appsink
//
// The sender casts what the computer plays, not the microphone: a person casting a video
// wants the video's sound at the receiver. A connection of our own to the sound server
// watches the default sink; when it changes, the running record stream is moved to the
// new sink's monitor (no restart, so no gap beyond the server's own move). When the server
// goes, the pipeline is dropped and the connection retried until the server is back.
#include "capture/session/linux/pulse_audio_input.h"

#include "capture/audio/linux/pulse_connection.h"
#include "capture/gst_util.h"
#include "capture/session/linux/gst_capture_source.h"
#include "common/log.h"

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace velocast::capture {

namespace {

// How often a vanished sound server is looked for again.
constexpr auto kRetryInterval = std::chrono::milliseconds(500);

QString quoted(const std::string &s) { return QString::fromStdString(s); }

using GstObjectPtr = std::unique_ptr<GstElement, GstObjectUnref>;

class PulseAudioInput;
// One step of following the default output, carried through the server's callbacks.
struct FollowStep {
    PulseAudioInput *self;
};

struct ServerQuery {
    explicit ServerQuery(PulseConnection *c) : connection(c) { }
    PulseConnection *connection;
    bool done = false;
    std::string defaultSink;
    std::string monitor;
};

// The default sink and its monitor source, read with the loop locked, off its thread.
void queryMonitor(PulseConnection &c, ServerQuery *q)
{
    ServerQuery info(&c);
    c.wait(pa_context_get_server_info(
               c.context(),
               [](pa_context *, const pa_server_info *i, void *data) {
                   auto *q = static_cast<ServerQuery *>(data);
                   if (i && i->default_sink_name) q->defaultSink = i->default_sink_name;
                   q->done = true;
                   q->connection->wake();
               },
               &info),
           &info.done);
    q->defaultSink = info.defaultSink;
    if (q->defaultSink.empty()) return;
    ServerQuery sink(&c);
    c.wait(pa_context_get_sink_info_by_name(
               c.context(), q->defaultSink.c_str(),
               [](pa_context *, const pa_sink_info *i, int eol, void *data) {
                   auto *q = static_cast<ServerQuery *>(data);
                   if (eol) {
                       q->done = true;
                       q->connection->wake();
                   } else if (i->monitor_source_name && i->monitor_source != PA_INVALID_INDEX) {
                       q->monitor = i->monitor_source_name;
                   }
               },
               &sink),
           &sink.done);
    q->monitor = sink.monitor;
}

class PulseAudioInput final : public CaptureSource {
public:
    explicit PulseAudioInput(SampleHandler handler) : handler_(std::move(handler)) { }
    ~PulseAudioInput() override { stopRunning(); }

    bool open(QString *error)
    {
        connection_ = connect(error);
        if (!connection_) return false;
        return build(error);
    }

    bool startRunning(QString *error) override
    {
        {
            std::lock_guard lock(mutex_);
            if (running_) return true;
            if (!inner_ || !inner_->startRunning(error)) return false;
            running_ = true;
            stopping_ = false;
        }
        watcher_ = std::jthread([this] { watch(); });
        return true;
    }

    void stopRunning() override
    {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (watcher_.joinable()) watcher_.join();
        // The connection first: no event handler runs after this, so none reads the pipeline.
        connection_.reset();
        std::unique_ptr<GstCaptureSource> inner;
        {
            std::lock_guard lock(mutex_);
            running_ = false;
            inner = std::move(inner_);
            src_ = nullptr;
        }
        drop(std::move(inner));
    }

    uint64_t deliveredSamples() const override
    {
        std::lock_guard lock(mutex_);
        return deliveredBefore_ + (inner_ ? inner_->deliveredSamples() : 0);
    }

private:
    std::unique_ptr<PulseConnection> connect(QString *why)
    {
        auto c = std::make_unique<PulseConnection>("velocast cast audio");
        c->setStateHandler([this](pa_context_state_t state) {
            if (state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) {
                {
                    std::lock_guard lock(mutex_);
                    serverGone_ = true;
                }
                wake_.notify_all();
            }
        });
        PulseConnection *raw = c.get();
        c->setEventHandler([this, raw](pa_subscription_event_type_t type, uint32_t) {
            if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER) defaultsMayHaveChanged(raw);
        });
        if (!c->connect(why)) {
            *why = QStringLiteral("no sound server: %1").arg(*why);
            return nullptr;
        }
        return c;
    }

    // Builds and opens the pipeline on the default sink's monitor, and starts watching the
    // server for changes of the default sink.
    bool build(QString *error)
    {
        PulseConnection &c = *connection_;
        ServerQuery q(&c);
        {
            PulseConnection::Lock lock(c);
            queryMonitor(c, &q);
            ServerQuery sub(&c);
            c.wait(pa_context_subscribe(
                       c.context(), PA_SUBSCRIPTION_MASK_SERVER,
                       [](pa_context *, int, void *data) {
                           auto *q = static_cast<ServerQuery *>(data);
                           q->done = true;
                           q->connection->wake();
                       },
                       &sub),
                   &sub.done);
        }
        if (q.monitor.empty()) {
            logLine(lcCapture(), q.defaultSink.empty()
                                     ? QStringLiteral("the sound server has no default output: the cast takes the default input instead")
                                     : QStringLiteral("the default output %1 has no monitor: the cast takes the default input instead")
                                           .arg(quoted(q.defaultSink)));
        } else {
            logLine(lcCapture(), QStringLiteral("cast sound from %1").arg(quoted(q.monitor)));
        }
        ensureGstreamer();
        GError *err = nullptr;
        GstElement *pipeline = gst_parse_launch("pulsesrc name=src client-name=velocast ! audioconvert ! audioresample "
                                                "! audio/x-raw,format=S16LE,rate=44100,channels=2,layout=interleaved "
                                                "! appsink name=sink max-buffers=2 drop=true sync=false emit-signals=false",
                                                &err);
        if (err) {
            *error = QString::fromUtf8(err->message);
            g_error_free(err);
            if (pipeline) gst_object_unref(pipeline);
            return false;
        }
        GstElement *src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
        if (!q.monitor.empty()) g_object_set(src, "device", q.monitor.c_str(), nullptr);
        auto inner = std::make_unique<GstCaptureSource>(pipeline, GstCaptureSource::Kind::Audio, "Audio Capture Queue", handler_);
        // pulsesrc connects to the sound server when it goes to READY: that is where a
        // missing server or source shows.
        if (!inner->open(error)) {
            gst_object_unref(src);
            return false;
        }
        std::lock_guard lock(mutex_);
        defaultSink_ = q.defaultSink;
        monitor_ = q.monitor;
        inner_ = std::move(inner);
        src_ = GstObjectPtr(src);
        return true;
    }

    // On the sound server's thread, loop locked. Never blocks there: each step asks and
    // goes on in the answer's callback.
    void defaultsMayHaveChanged(PulseConnection *c)
    {
        pa_operation *op = pa_context_get_server_info(
            c->context(),
            [](pa_context *ctx, const pa_server_info *i, void *data) {
                std::unique_ptr<FollowStep> step(static_cast<FollowStep *>(data));
                if (!i || !i->default_sink_name) return;
                {
                    std::lock_guard lock(step->self->mutex_);
                    if (step->self->defaultSink_ == i->default_sink_name) return;
                    step->self->defaultSink_ = i->default_sink_name;
                }
                pa_operation *next = pa_context_get_sink_info_by_name(ctx, i->default_sink_name, &PulseAudioInput::onNewDefault, step.get());
                if (next) {
                    pa_operation_unref(next);
                    step.release();
                }
            },
            new FollowStep{this});
        if (op) pa_operation_unref(op);
    }

    static void onNewDefault(pa_context *ctx, const pa_sink_info *i, int eol, void *data)
    {
        auto *step = static_cast<FollowStep *>(data);
        if (eol) {
            delete step;
            return;
        }
        // A lookup by name answers with the sink, then with the end of the list (eol),
        // where the step is freed.
        PulseAudioInput *self = step->self;
        if (!i->monitor_source_name || i->monitor_source == PA_INVALID_INDEX) {
            logLine(lcCapture(), QStringLiteral("the default output %1 has no monitor: the cast sound stays where it is").arg(QString::fromUtf8(i->name)));
            return;
        }
        GstObjectPtr src;
        {
            std::lock_guard lock(self->mutex_);
            if (self->monitor_ == i->monitor_source_name || !self->src_) return;
            src = GstObjectPtr(GST_ELEMENT(gst_object_ref(self->src_.get())));
        }
        guint index = PA_INVALID_INDEX;
        g_object_get(src.get(), "source-output-index", &index, nullptr);
        if (index == PA_INVALID_INDEX) {
            logLine(lcCapture(), QStringLiteral("the cast sound cannot follow the default output yet: its record stream is not connected"));
            return;
        }
        auto *move = new std::pair<PulseAudioInput *, std::string>(self, i->monitor_source_name);
        pa_operation *op = pa_context_move_source_output_by_name(
            ctx, index, i->monitor_source_name,
            [](pa_context *ctx, int success, void *data) {
                std::unique_ptr<std::pair<PulseAudioInput *, std::string>> move(static_cast<std::pair<PulseAudioInput *, std::string> *>(data));
                if (!success) {
                    logLine(lcCapture(), QStringLiteral("the cast sound could not follow the default output to %1: %2")
                                             .arg(QString::fromStdString(move->second), QString::fromUtf8(pa_strerror(pa_context_errno(ctx)))));
                    return;
                }
                logLine(lcCapture(), QStringLiteral("cast sound follows the default output: %1").arg(QString::fromStdString(move->second)));
                std::lock_guard lock(move->first->mutex_);
                move->first->monitor_ = move->second;
            },
            move);
        if (op)
            pa_operation_unref(op);
        else
            delete move;
    }

    // The watcher thread: notices the server going and brings the sound back when it returns.
    void watch()
    {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            wake_.wait(lock, [this] { return stopping_ || serverGone_; });
            if (stopping_) return;
            serverGone_ = false;
            std::unique_ptr<GstCaptureSource> inner = std::move(inner_);
            src_ = nullptr;
            if (inner) deliveredBefore_ += inner->deliveredSamples();
            lock.unlock();
            logLine(lcCapture(), QStringLiteral("the sound server went away: the cast goes on without sound"));
            drop(std::move(inner));
            connection_.reset();
            lock.lock();
            while (!stopping_ && !serverGone_) {
                if (wake_.wait_for(lock, kRetryInterval, [this] { return stopping_; })) return;
                lock.unlock();
                QString why;
                bool back = false;
                if ((connection_ = connect(&why)) && build(&why)) {
                    std::lock_guard guard(mutex_);
                    back = inner_->startRunning(&why);
                }
                lock.lock();
                if (back) {
                    logLine(lcCapture(), QStringLiteral("the sound server is back: the cast has sound again"));
                    break;
                }
                // Not yet: try again.
                std::unique_ptr<GstCaptureSource> failed = std::move(inner_);
                src_ = nullptr;
                serverGone_ = false;
                lock.unlock();
                drop(std::move(failed));
                connection_.reset();
                lock.lock();
            }
        }
    }

    static void drop(std::unique_ptr<GstCaptureSource> inner)
    {
        if (inner) inner->stopRunning();
    }

    const SampleHandler handler_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    // Under mutex_.
    std::unique_ptr<GstCaptureSource> inner_;
    GstObjectPtr src_; // the pulsesrc inside inner_'s pipeline
    std::string defaultSink_;
    std::string monitor_;
    uint64_t deliveredBefore_ = 0;
    bool running_ = false;
    bool stopping_ = false;
    bool serverGone_ = false;
    // Made and dropped by open(), the watcher thread and stopRunning() (after the watcher
    // has ended), never on the sound server's own thread.
    std::unique_ptr<PulseConnection> connection_;
    std::jthread watcher_; // last: joined before the state above goes
};

} // namespace

std::unique_ptr<CaptureSource> makePulseAudioInput(CaptureSource::SampleHandler handler, QString *error)
{
    auto input = std::make_unique<PulseAudioInput>(std::move(handler));
    if (!input->open(error)) return nullptr;
    return input;
}

} // namespace velocast::capture
