#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace velocast::push::test {

namespace {

Socket bindLoopback(int type, uint16_t port, uint16_t *boundPort)
{
    Socket sock(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(sock.fd(), reinterpret_cast<const sockaddr *>(&address), length) != 0
        || getsockname(sock.fd(), reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return Socket();
    *boundPort = ntohs(address.sin_port);
    return sock;
}

bool waitReadable(int fd, int timeoutMs)
{
    pollfd entry {fd, POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) == 1;
}

} // namespace

TcpListener::TcpListener(int backlog, int receiveBuffer)
{
    socket_ = bindLoopback(SOCK_STREAM, 0, &port_);
    if (receiveBuffer > 0)
        setsockopt(socket_.fd(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    ::listen(socket_.fd(), backlog);
}

Socket TcpListener::accept()
{
    if (!waitReadable(socket_.fd(), kWaitMs))
        return Socket();
    return Socket(::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
}

UdpReceiver::UdpReceiver(uint16_t port) { socket_ = bindLoopback(SOCK_DGRAM, port, &port_); }

std::optional<std::vector<uint8_t>> UdpReceiver::receive()
{
    std::vector<uint8_t> datagram(65'536);
    const ssize_t n = waitReadable(socket_.fd(), kWaitMs) ? ::recv(socket_.fd(), datagram.data(), datagram.size(), 0) : -1;
    if (n < 0)
        return std::nullopt;
    datagram.resize(size_t(n));
    return datagram;
}

bool readExact(int fd, uint8_t *out, size_t size, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (size_t done = 0; done < size;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !waitReadable(fd, int(left.count())))
            return false;
        const ssize_t n = ::recv(fd, out + done, size - done, 0);
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

std::optional<Record> readRecord(int fd)
{
    Record record {std::vector<uint8_t>(wire::kRecordHeaderSize), {}, {}};
    if (!readExact(fd, record.header.data(), record.header.size()))
        return std::nullopt;
    wire::readVideoRecordHeader(record.header.data(), &record.fields);
    record.payload.resize(wire::le32(record.header.data() + 4)); // also for "1CAA"
    if (!readExact(fd, record.payload.data(), record.payload.size()))
        return std::nullopt;
    return record;
}

int32_t EventLog::OnEvent(int32_t event)
{
    {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
    }
    changed_.notify_all();
    return 0;
}

std::vector<int32_t> EventLog::events() const
{
    std::lock_guard lock(mutex_);
    return events_;
}

bool EventLog::waitForCount(int32_t event, size_t count, int timeoutMs)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return size_t(std::count(events_.begin(), events_.end(), event)) >= count; });
}

std::vector<uint8_t> makeFrame(uint8_t nalType, size_t size, uint32_t id)
{
    std::vector<uint8_t> frame(size);
    for (size_t i = 5; i < size; ++i)
        frame[i] = uint8_t(i * 7 + id);
    const uint8_t prefix[9] = {0x00, 0x00, 0x00, 0x01, uint8_t(0x60 | (nalType & 0x1F)), uint8_t(id), uint8_t(id >> 8),
                               uint8_t(id >> 16), uint8_t(id >> 24)};
    std::copy_n(prefix, std::min(size, sizeof prefix), frame.begin());
    return frame;
}

uint32_t frameId(const std::vector<uint8_t> &frame) { return frame.size() >= 9 ? wire::le32(frame.data() + 5) : 0; }

} // namespace velocast::push::test
