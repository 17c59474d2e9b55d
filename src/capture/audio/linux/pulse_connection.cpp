#include "capture/audio/linux/pulse_connection.h"

namespace velocast::capture {

PulseConnection::PulseConnection(std::string clientName) : clientName_(std::move(clientName)) { }

PulseConnection::~PulseConnection()
{
    if (!loop_) return;
    pa_threaded_mainloop_lock(loop_);
    if (context_) {
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_set_subscribe_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        context_ = nullptr;
    }
    pa_threaded_mainloop_unlock(loop_);
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
}

bool PulseConnection::connect(QString *why)
{
    if (loop_) {
        *why = QStringLiteral("already connected once");
        return false;
    }
    loop_ = pa_threaded_mainloop_new();
    if (!loop_) {
        *why = QStringLiteral("cannot make a sound server main loop");
        return false;
    }
    pa_threaded_mainloop_set_name(loop_, "pulse events");
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), clientName_.c_str());
    if (!context_) {
        *why = QStringLiteral("cannot make a sound server context");
        return false;
    }
    pa_context_set_state_callback(context_, &PulseConnection::onState, this);
    pa_context_set_subscribe_callback(context_, &PulseConnection::onEvent, this);
    // No autospawn: a desktop has its server running, and tests start their own.
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        *why = QString::fromUtf8(pa_strerror(pa_context_errno(context_)));
        return false;
    }
    pa_threaded_mainloop_lock(loop_);
    if (pa_threaded_mainloop_start(loop_) < 0) {
        pa_threaded_mainloop_unlock(loop_);
        *why = QStringLiteral("cannot start the sound server main loop");
        return false;
    }
    pa_context_state_t state;
    while ((state = pa_context_get_state(context_)) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(state))
        pa_threaded_mainloop_wait(loop_);
    const bool ready = state == PA_CONTEXT_READY;
    if (!ready) *why = QString::fromUtf8(pa_strerror(pa_context_errno(context_)));
    pa_threaded_mainloop_unlock(loop_);
    return ready;
}

bool PulseConnection::isReady() const
{
    if (!context_) return false;
    Lock lock(*this);
    return pa_context_get_state(context_) == PA_CONTEXT_READY;
}

int PulseConnection::lastError() const
{
    if (!context_) return PA_ERR_CONNECTIONREFUSED;
    Lock lock(*this);
    return pa_context_errno(context_);
}

bool PulseConnection::wait(pa_operation *op, const bool *done)
{
    if (!op) return false;
    while (!*done && pa_context_get_state(context_) == PA_CONTEXT_READY
           && pa_operation_get_state(op) == PA_OPERATION_RUNNING)
        pa_threaded_mainloop_wait(loop_);
    pa_operation_unref(op);
    return *done;
}

void PulseConnection::onState(pa_context *c, void *self)
{
    auto *that = static_cast<PulseConnection *>(self);
    const pa_context_state_t state = pa_context_get_state(c);
    if (that->stateHandler_) that->stateHandler_(state);
    pa_threaded_mainloop_signal(that->loop_, 0);
}

void PulseConnection::onEvent(pa_context *, pa_subscription_event_type_t type, uint32_t index, void *self)
{
    auto *that = static_cast<PulseConnection *>(self);
    if (that->eventHandler_) that->eventHandler_(type, index);
}

} // namespace velocast::capture
