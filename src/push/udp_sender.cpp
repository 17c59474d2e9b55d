#include "push/udp_sender.h"

#include "push/media_wire_format.h"
#include "push/push_log.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace velocast::push {

namespace {
constexpr int kWritableWaitMs = 1;
constexpr int kAudioWaitBudget = 5;
} // namespace

CUdpSender::CUdpSender() = default;

CUdpSender::~CUdpSender() = default;

int32_t CUdpSender::Open(const char *ip, uint32_t port)
{
    in_addr address {};
    if (!ip || inet_pton(AF_INET, ip, &address) != 1)
        return opened_ ? kUdpAlreadyOpen : kUdpBadAddress;
    return Open(address.s_addr, port);
}

int32_t CUdpSender::Open(uint32_t address, uint32_t port)
{
    if (opened_)
        return kUdpAlreadyOpen;
    abort_ = false;
    waitWritable_ = false;
    address_ = address;
    port_ = port;
    Socket sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.isValid()) {
        Log(kLogLevel, "permission denied !");
        return kUdpNoSocket;
    }
    int reuse = 1;
    setsockopt(sock.fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    destination_ = {};
    destination_.sin_family = AF_INET;
    destination_.sin_port = htons(uint16_t(port));
    destination_.sin_addr.s_addr = address;
    videoPacket_.Alloc(kUdpPacketBufferBytes);
    audioPacket_.Alloc(kUdpPacketBufferBytes);
    socket_ = std::move(sock);
    opened_ = true;
    return kUdpOpenOk;
}

void CUdpSender::Close()
{
    socket_.close();
    opened_ = false;
}

bool CUdpSender::sendDatagram(CQueBuf &packet, uint32_t header, const uint8_t *piece, int32_t pieceLength)
{
    // Header and piece side by side in one buffer, so one sendto carries the datagram.
    uint8_t *out = packet.Data();
    const int32_t capacity = packet.Capacity();
    if (!out || capacity < int32_t(wire::kDatagramHeaderSize))
        return false;
    wire::putLe32(out, header);
    const int32_t copied = std::min(pieceLength, capacity - int32_t(wire::kDatagramHeaderSize));
    std::memcpy(out + wire::kDatagramHeaderSize, piece, size_t(copied));
    const size_t datagram = wire::kDatagramHeaderSize + size_t(copied);
    return ::sendto(socket_.fd(), out, datagram, 0, reinterpret_cast<const sockaddr *>(&destination_),
                    sizeof destination_)
        >= 0;
}

int32_t CUdpSender::SendAudio(const void *data, int32_t length)
{
    if (length < 5 || !opened_ || !data)
        return kUdpSendFailed;
    const auto *bytes = static_cast<const uint8_t *>(data);

    int32_t sent = 0;
    int budget = kAudioWaitBudget;
    bool failed = false;
    // The descriptor set is filled once for the whole call, and a time-out empties it: after
    // the first time-out no later wait can see the socket writable, so the call ends when the
    // budget is spent (about 5 ms at most). An audio frame that late is not worth more.
    bool watching = true;
    while (sent < length && budget >= 1 && !failed && !abort_.load()) {
        pollfd entry {socket_.fd(), POLLOUT, 0};
        const int ready = watching ? ::poll(&entry, 1, kWritableWaitMs) : ::poll(nullptr, 0, kWritableWaitMs);
        if (ready > 0) {
            const int32_t piece = std::min(length - sent, int32_t(wire::kMaxDatagramPayload));
            // Every audio datagram is marked first and last piece, also when one frame needs
            // several: the receiver treats each datagram on its own.
            const uint32_t header = wire::packDatagramHeader(
                {wire::kDatagramTypeAudio, 0, true, true, audioSequence_});
            ++audioSequence_;
            if (sendDatagram(audioPacket_, header, bytes + sent, piece))
                sent += piece;
            else
                failed = true;
        } else if (ready == 0) {
            --budget;
            watching = false;
        } else if (errno != EINTR) {
            failed = true;
        }
    }
    if (failed)
        Close();
    return sent;
}

int32_t CUdpSender::SendVideo(const void *data, int32_t length)
{
    if (!opened_ || !data || length < 1)
        return kUdpSendFailed;
    const auto *bytes = static_cast<const uint8_t *>(data);
    // Byte 4 is the first NAL header behind a 4-byte start code. IDR slices and parameter
    // sets are key (0); everything else may be dropped (1).
    const uint8_t nalType = length > 4 ? (bytes[4] & 0x1F) : 0;
    const uint8_t dropPriority = (nalType == 5 || nalType == 7 || nalType == 8) ? 0 : 1;

    int32_t sent = 0;
    while (sent < length && !abort_.load()) {
        const int32_t piece = std::min(length - sent, int32_t(wire::kMaxDatagramPayload));
        const uint32_t header = wire::packDatagramHeader(
            {wire::kDatagramTypeVideo, dropPriority, sent == 0, sent + piece == length, videoSequence_});
        ++videoSequence_;
        for (;;) {
            if (sendDatagram(videoPacket_, header, bytes + sent, piece))
                break;
            if (errno != ETIMEDOUT || abort_.load()) {
                Close();
                return sent;
            }
            pollfd entry {socket_.fd(), POLLOUT, 0};
            ::poll(&entry, 1, kWritableWaitMs);
        }
        sent += piece;
    }
    return sent;
}

int32_t CUdpSender::SendRaw(const void *data, int32_t length)
{
    if (!opened_ || !data || length < 0)
        return kUdpSendFailed;
    const ssize_t result = ::sendto(socket_.fd(), data, size_t(length), 0,
                                    reinterpret_cast<const sockaddr *>(&destination_), sizeof destination_);
    if (result < 0)
        Close();
    return int32_t(result);
}

int32_t CUdpSender::BindMulticast(const char *localIp)
{
    in_addr local {};
    if (!opened_ || !localIp || inet_pton(AF_INET, localIp, &local) != 1)
        return -1;
    if (setsockopt(socket_.fd(), IPPROTO_IP, IP_MULTICAST_IF, &local, sizeof local) != 0)
        return -1;
    sockaddr_in bindAddress {};
    bindAddress.sin_family = AF_INET;
    bindAddress.sin_port = destination_.sin_port;
    bindAddress.sin_addr = local;
    if (::bind(socket_.fd(), reinterpret_cast<const sockaddr *>(&bindAddress), sizeof bindAddress) != 0)
        return -1;
    return 0;
}

} // namespace velocast::push
