// The flat push API: one process-wide push context that sends video over TCP (CTcpClient)
// and audio over UDP (CUdpSender) to the same receiver address and port.
//
// Calling order: PushCreate, PushSetCallback, PushInit, PushSendFrame per frame, PushClose.
// PushCreate, PushInit and PushClose belong to the thread that starts and stops casting;
// PushSendFrame may run on several encoder threads at once (video and audio). A close waits
// for sends in progress, so a late frame is refused rather than sent through a freed
// transport. The registered callback runs on the engine's threads (see INetClientCallBack)
// and must not call back into this API.
#pragma once

#include <cstdint>

namespace velocast::push {

using PushHandle = void *;
// (userValue, event, 0, userData) → ignored result. Events are those of net_client.h.
using PushEventFn = int32_t (*)(int32_t userValue, int32_t event, int32_t zero, void *userData);

inline constexpr uint32_t kFrameTypeVideo = 1;
inline constexpr uint32_t kFrameTypeAudio = 2;
inline constexpr uint32_t kFrameFlagKey = 1;
inline constexpr uint32_t kFrameFlagOther = 2;
inline constexpr uint32_t kFrameFlagAac = 0x15002; // the AAC codec number of the libavcodec numbering

// Filled by the caller for each frame. The engine ignores the timestamps, and the flag of
// audio frames.
struct PushFrame {
    uint32_t type = 0;   // kFrameTypeVideo or kFrameTypeAudio
    uint32_t length = 0; // bytes at data
    uint32_t flag = 0;   // video: kFrameFlagKey or kFrameFlagOther; audio: kFrameFlagAac
    const uint8_t *data = nullptr; // video: one Annex-B access unit; audio: one ADTS frame
    uint32_t timestampSeconds = 0;
    uint32_t timestampMicros = 0;
};

inline constexpr int32_t kPushOk = 0;
inline constexpr int32_t kPushAlreadyDone = 1;
inline constexpr int32_t kPushNotReady = -1;
inline constexpr int32_t kPushTcpFailed = -11;
inline constexpr int32_t kPushUdpFailed = -12;

// Clears the callback registration, closes an open push context and returns its handle.
PushHandle PushCreate();
// Stores the registration (the handle is not looked at). 0.
int32_t PushSetCallback(PushHandle handle, PushEventFn callback, int32_t userValue, void *userData);
// Connects video (waits up to 3 s) and opens audio to ip:port (port taken modulo 2^16).
// 0; 1 if already open (nothing changes); -11 the TCP connect failed (no UDP socket is
// opened); -12 the UDP socket failed (the context is closed again).
int32_t PushInit(PushHandle handle, const char *ip, int32_t port);
// Queues a video frame on the TCP client or sends an audio frame over UDP. -1 when the
// context is not open or frame is null; otherwise 0, whatever the transport did with it.
int32_t PushSendFrame(PushHandle handle, const PushFrame *frame);
// Closes and deletes both transports when handle is the push context's. 0.
int32_t PushClose(PushHandle handle);

} // namespace velocast::push
