// UDP sender for media datagrams (audio in this system) to the receiver's media port.
//
// Each datagram is the 4-byte header of media_wire_format.h and at most 1,420 payload
// bytes. Not thread-safe: one thread sends at a time, and Close must not race with a send
// (the push API's lock sees to both). SetAbort may be called from any thread.
#pragma once

#include "push/que_buf.h"
#include "push/socket.h"

#include <netinet/in.h>

#include <atomic>
#include <cstdint>

namespace velocast::push {

inline constexpr int32_t kUdpOpenOk = 0;
inline constexpr int32_t kUdpAlreadyOpen = 1;
inline constexpr int32_t kUdpBadAddress = -1; // the text is not a dotted IPv4 address
inline constexpr int32_t kUdpNoSocket = -131;
inline constexpr int32_t kUdpSendFailed = -1;
inline constexpr int32_t kUdpPacketBufferBytes = 1'600;

class CUdpSender {
public:
    CUdpSender();
    virtual ~CUdpSender();
    CUdpSender(const CUdpSender &) = delete;
    CUdpSender &operator=(const CUdpSender &) = delete;

    // ip: dotted IPv4 text; port is taken modulo 2^16. 0, 1 already open, -1 bad address,
    // -131 no socket.
    int32_t Open(const char *ip, uint32_t port);
    // address in network byte order.
    int32_t Open(uint32_t address, uint32_t port);
    void Close();
    bool IsOpen() const { return opened_; }

    // Sends one audio frame in pieces of at most 1,420 bytes, each with type 5, first and
    // last piece set and the next audio sequence number. Frames of fewer than 5 bytes are not
    // sent (-1), nor is anything when closed (-1). Returns the payload bytes sent. Gives up
    // after about 5 ms of a socket that is not writable; a send error closes the sender.
    int32_t SendAudio(const void *data, int32_t length);

    // The rest is not used by the push path.

    // Cuts a video access unit into pieces with type 1, the drop priority of its first NAL
    // unit, first/last piece marks and the video sequence. Bytes sent, or -1.
    int32_t SendVideo(const void *data, int32_t length);
    // One sendto of the caller's bytes; closes on error. sendto's result, or -1 when closed.
    int32_t SendRaw(const void *data, int32_t length);
    // Sends multicast through the interface of localIp (dotted IPv4) and binds to that address
    // with the destination's port. 0, or -1.
    int32_t BindMulticast(const char *localIp);
    static constexpr int32_t MaxPayload() { return 1'420; }
    void SetAbort(bool abort) { abort_.store(abort); }
    // A setting kept for callers; the sender itself does not use it.
    void SetSetting(int32_t value) { setting_ = value; }
    int32_t Setting() const { return setting_; }

private:
    bool sendDatagram(CQueBuf &packet, uint32_t header, const uint8_t *piece, int32_t pieceLength);

    bool opened_ = false;
    uint32_t address_ = 0;
    uint32_t port_ = 0;
    std::atomic<bool> abort_{false};
    int32_t setting_ = 1;
    Socket socket_;
    sockaddr_in destination_ {};
    bool waitWritable_ = false; // cleared by Open; kept for callers, unused here
    CQueBuf videoPacket_;
    CQueBuf audioPacket_;
    uint16_t audioSequence_ = 0;
    uint16_t videoSequence_ = 0;
};

} // namespace velocast::push
