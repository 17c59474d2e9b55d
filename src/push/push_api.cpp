#include "push/push_api.h"

#include "push/net_client.h"
#include "push/push_log.h"
#include "push/rate_limiter.h"
#include "push/tcp_client.h"
#include "push/udp_sender.h"

#include <memory>
#include <mutex>
#include <shared_mutex>

namespace velocast::push {

namespace {

constexpr int64_t kFrameLogIntervalMs = 1'000;

struct Registration {
    PushEventFn callback = nullptr;
    int32_t userValue = 0;
    void *userData = nullptr;
};

// Forwards the TCP client's events to the registered function.
class MyCallBack final : public INetClientCallBack {
public:
    int32_t OnEvent(int32_t event) override
    {
        Registration current;
        {
            std::lock_guard lock(mutex_);
            current = registration_;
        }
        if (current.callback)
            current.callback(current.userValue, event, 0, current.userData);
        return 0;
    }

    void set(const Registration &registration)
    {
        std::lock_guard lock(mutex_);
        registration_ = registration;
    }

private:
    std::mutex mutex_;
    Registration registration_;
};

struct PushContext {
    // Serialises PushCreate, PushInit and PushClose.
    std::mutex controlMutex;
    // Shared by sends, exclusive to swap the transports in and out.
    std::shared_mutex transportLock;
    std::unique_ptr<CNetClientIfc> tcpClient;
    std::unique_ptr<CUdpSender> udpSender;
    // One audio send at a time: the sender's packet buffer and sequence are not shared.
    std::mutex udpMutex;
    MyCallBack MyCB;
    LogRateLimiter frameLogLimiter;
};

PushContext &pushContext()
{
    static PushContext context;
    return context;
}

void closeLocked(PushContext &context)
{
    Log(kLogLevel, "[init-push] close existing server....\n");
    std::unique_ptr<CNetClientIfc> tcpClient;
    std::unique_ptr<CUdpSender> udpSender;
    {
        std::unique_lock lock(context.transportLock);
        tcpClient = std::move(context.tcpClient);
        udpSender = std::move(context.udpSender);
    }
    // No send can reach them any more; closing joins the sender thread.
    if (tcpClient)
        tcpClient->Close();
    tcpClient.reset();
    if (udpSender)
        udpSender->Close();
}

} // namespace

PushHandle PushCreate()
{
    PushContext &context = pushContext();
    context.MyCB.set({});
    PushClose(&context);
    return &context;
}

int32_t PushSetCallback(PushHandle, PushEventFn callback, int32_t userValue, void *userData)
{
    pushContext().MyCB.set({callback, userValue, userData});
    return kPushOk;
}

int32_t PushInit(PushHandle, const char *ip, int32_t port)
{
    PushContext &context = pushContext();
    std::lock_guard control(context.controlMutex);
    if (context.tcpClient || context.udpSender)
        return kPushAlreadyDone;

    const auto mediaPort = uint16_t(port);
    // The connect runs without the transport lock: a frame that arrives meanwhile is
    // refused at once instead of stalling its encoder thread for the connect wait.
    std::unique_ptr<CNetClientIfc> tcpClient = std::make_unique<CTcpClient>();
    if (tcpClient->Open(ip, mediaPort, &context.MyCB) < 0)
        return kPushTcpFailed;
    Log(kLogLevel, "SimAPI-init called: server: %s:%d  ret: %lx\n", ip, int(mediaPort),
        static_cast<unsigned long>(reinterpret_cast<uintptr_t>(tcpClient.get())));

    auto udpSender = std::make_unique<CUdpSender>();
    if (udpSender->Open(ip, mediaPort) < 0) {
        Log(kLogLevel, "[init-push] close existing server....\n");
        tcpClient->Close();
        return kPushUdpFailed;
    }
    std::unique_lock lock(context.transportLock);
    context.tcpClient = std::move(tcpClient);
    context.udpSender = std::move(udpSender);
    return kPushOk;
}

int32_t PushSendFrame(PushHandle, const PushFrame *frame)
{
    PushContext &context = pushContext();
    std::shared_lock lock(context.transportLock);
    if (!context.tcpClient || !frame || !context.udpSender)
        return kPushNotReady;

    // The limiter takes a lock and reads the clock: only when the line has a reader.
    if (LogEnabled() && context.frameLogLimiter.Allow(kFrameLogIntervalMs)) {
        Log(kLogLevel, "SimAPI recv_data:  length: %d  video?: %d  audio? %d  video-sub: %d\n", int(frame->length),
            int(frame->type == kFrameTypeVideo), int(frame->type == kFrameTypeAudio), int(frame->flag == kFrameFlagKey));
        LogHexDump(frame->data, frame->length, 32);
    }

    // A length beyond INT32_MAX turns negative here and is refused by both transports.
    const auto length = static_cast<int32_t>(frame->length);
    if (frame->type == kFrameTypeVideo) {
        SendVideo(context.tcpClient.get(), 0, frame->flag == kFrameFlagKey ? 1 : 0, 0, frame->data, length);
    } else if (frame->type == kFrameTypeAudio) {
        std::lock_guard audio(context.udpMutex);
        context.udpSender->SendAudio(frame->data, length);
    }
    return kPushOk;
}

int32_t PushClose(PushHandle handle)
{
    PushContext &context = pushContext();
    if (handle != &context)
        return kPushOk;
    std::lock_guard control(context.controlMutex);
    closeLocked(context);
    return kPushOk;
}

} // namespace velocast::push
