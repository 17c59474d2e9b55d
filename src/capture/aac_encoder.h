// AACEncoder: one ADTS frame per AAC access unit, delivered in order on its own
// "AAC Encoder Callback Queue" thread.
//
// Two kinds of sample come in. An AAC access unit (what a capture that already encodes
// delivers) is framed as it is. Interleaved PCM (what capture on Linux delivers) first goes
// through an AAC LC encoder element, which yields one raw access unit per 1024 samples at
// 44100 Hz stereo; each of those is framed the same way.
//
// ADTS header, 7 bytes, no CRC; FL = payload length + 7 (13 bits, so at most 8191):
//
//   byte 0  1111 1111   syncword (high 8 bits)
//   byte 1  1111 1 00 1 syncword (low 4) | ID 1 (MPEG-2) | layer 00 | protection_absent 1   = 0xF9
//   byte 2  01 0100 0 0 profile 01 (LC) | sampling_frequency_index 4 (44100) | private 0 |
//                       channel_configuration bit 2 (0)                                  = 0x50
//   byte 3  10 0 0 0 0 FF  channel_configuration bits 1..0 (10: stereo) | original/copy 0 |
//                       home 0 | two copyright id bits 0 | FL bits 12..11 = 0x80 ^ (FL >> 11)
//   byte 4  FL bits 10..3                                                              = FL >> 3
//   byte 5  FL bits 2..0 | buffer fullness bits 10..6 (all ones)                       = FL << 5 | 0x1F
//   byte 6  buffer fullness bits 5..0 (all ones: variable rate) | one raw data block   = 0xFC
//
// The header is fixed at 44100 Hz, AAC LC, stereo: the capture and the PCM encoder both
// produce exactly that.
#pragma once

#include "capture/media_sample.h"
#include "common/serial_queue.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace velocast::capture {

class AacPcmEncoder;

class AACEncoderDelegate {
public:
    virtual ~AACEncoderDelegate() = default;
    // Runs on the "AAC Encoder Callback Queue" thread, one frame at a time, in encoding order.
    // frame is the ADTS header followed by the payload. error is null unless the sample's
    // bytes could not be read.
    virtual void gotAACEncodedData(const std::vector<uint8_t> &frame, MediaTime timestamp, const MediaError *error) = 0;
};

class AACEncoder {
public:
    // Largest payload an ADTS frame can carry: FL is a 13-bit field.
    static constexpr uint32_t kMaxPayload = 0x1FFF - 7;

    AACEncoder();
    // Stops the PCM encoder, then the queues; frames not yet delivered are dropped.
    ~AACEncoder();
    AACEncoder(const AACEncoder &) = delete;
    AACEncoder &operator=(const AACEncoder &) = delete;

    // Non-owning. The delegate must outlive this encoder or be cleared first; it is read
    // again on the callback queue for every frame.
    void setDelegate(AACEncoderDelegate *delegate) { delegate_.store(delegate); }
    AACEncoderDelegate *delegate() const { return delegate_.load(); }

    // On the audio capture thread. An AAC access unit is framed and posted at once; PCM is
    // handed to the AAC encoder element, whose output is framed and posted on its own
    // streaming thread. A payload longer than kMaxPayload cannot be described by the
    // header and is dropped with a log line.
    void encode(const MediaSample &sample);

    // The header for a payload of that length (see the table above). Meaningful for
    // lengths up to kMaxPayload.
    static std::vector<uint8_t> adtsDataForPacketLength(uint32_t length);

    // The AAC encoder element in use for PCM ("voaacenc", "avenc_aac"), or empty.
    std::string chosenEncoderName() const;

    const SerialQueue &callbackQueue() const { return callbackQueue_; }

private:
    void frameAndPost(std::span<const uint8_t> payload, MediaTime timestamp, std::shared_ptr<MediaError> error);
    void encodePcm(const MediaSample &sample);

    std::atomic<AACEncoderDelegate *> delegate_{nullptr};
    // The payload of the last access unit read; reused, as the converter input was, when a
    // sample's bytes cannot be read.
    std::vector<uint8_t> pcmBuffer_;
    // Kept for the shape of the class; no work is put on it.
    SerialQueue encoderQueue_{"AAC Encoder Queue"};
    SerialQueue callbackQueue_{"AAC Encoder Callback Queue"};
    mutable std::mutex pcmMutex_;
    // Declared after the callback queue: its streaming thread posts there, so it must stop first.
    std::unique_ptr<AacPcmEncoder> pcmEncoder_;
};

} // namespace velocast::capture
