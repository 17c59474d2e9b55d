// One client connection to the sound server through libpulse's threaded main loop. Used by
// the audio device control (device lists, defaults, change events) and by the cast's audio
// input (which output to listen to, and whether the server is still there). Works against
// PulseAudio and against PipeWire's PulseAudio interface.
#pragma once

#include <pulse/pulseaudio.h>

#include <QString>

#include <functional>
#include <memory>
#include <string>

namespace velocast::capture {

class PulseConnection {
public:
    // Called on the main loop's thread with the loop locked.
    using EventHandler = std::function<void(pa_subscription_event_type_t type, uint32_t index)>;
    using StateHandler = std::function<void(pa_context_state_t state)>;

    explicit PulseConnection(std::string clientName);
    // Disconnects and joins the main loop's thread; no handler runs after it returns.
    // Must not run on the main loop's thread.
    ~PulseConnection();
    PulseConnection(const PulseConnection &) = delete;
    PulseConnection &operator=(const PulseConnection &) = delete;

    // Handlers are set before connect().
    void setEventHandler(EventHandler handler) { eventHandler_ = std::move(handler); }
    void setStateHandler(StateHandler handler) { stateHandler_ = std::move(handler); }

    // Connects to the server that PULSE_SERVER (or the usual places) names and waits until
    // the connection is ready or has failed. False, with the reason, when no server answers.
    bool connect(QString *why);
    // Whether the connection is ready (false once the server has gone).
    bool isReady() const;
    // The last error number of the connection (a PA_ERR_* value).
    int lastError() const;

    pa_context *context() const { return context_; }
    pa_threaded_mainloop *loop() const { return loop_; }
    bool inLoopThread() const { return loop_ && pa_threaded_mainloop_in_thread(loop_); }

    // Holds the main loop's lock, unless the caller already runs on its thread (where the
    // lock is held already and taking it again would deadlock).
    class Lock {
    public:
        explicit Lock(const PulseConnection &c) : loop_(c.inLoopThread() ? nullptr : c.loop_)
        {
            if (loop_) pa_threaded_mainloop_lock(loop_);
        }
        ~Lock()
        {
            if (loop_) pa_threaded_mainloop_unlock(loop_);
        }
        Lock(const Lock &) = delete;
        Lock &operator=(const Lock &) = delete;

    private:
        pa_threaded_mainloop *loop_;
    };

    // Waits, with the lock held and off the loop's thread, until *done is set by a callback
    // that calls wake(), or the connection fails. Takes over the operation (unrefs it).
    // False when the connection failed first or op is null.
    bool wait(pa_operation *op, const bool *done);
    // Wakes a wait(); for operation callbacks.
    void wake() { pa_threaded_mainloop_signal(loop_, 0); }

private:
    static void onState(pa_context *c, void *self);
    static void onEvent(pa_context *c, pa_subscription_event_type_t type, uint32_t index, void *self);

    const std::string clientName_;
    EventHandler eventHandler_;
    StateHandler stateHandler_;
    pa_threaded_mainloop *loop_ = nullptr;
    pa_context *context_ = nullptr;
};

} // namespace velocast::capture
