#include "loopback.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace velocast::push::test {

namespace {

sockaddr_in loopbackAddress(uint16_t port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

uint16_t boundPort(int fd)
{
    sockaddr_in address {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

int remainingMs(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? int(left.count()) : 0;
}

} // namespace

TcpListener::TcpListener(int backlog, int receiveBuffer, uint16_t port)
{
    Socket sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (receiveBuffer > 0)
        setsockopt(sock.fd(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    const sockaddr_in address = loopbackAddress(port);
    if (::bind(sock.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0
        || ::listen(sock.fd(), backlog) != 0)
        return;
    port_ = boundPort(sock.fd());
    socket_ = std::move(sock);
}

Socket TcpListener::accept(int timeoutMs)
{
    pollfd entry {socket_.fd(), POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) != 1)
        return Socket();
    return Socket(::accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
}

RefusingPort::RefusingPort()
{
    socket = Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopbackAddress(0);
    ::bind(socket.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    port = boundPort(socket.fd());
}

bool readExact(int fd, uint8_t *out, size_t size, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t done = 0;
    while (done < size) {
        pollfd entry {fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, remainingMs(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready != 1)
            return false;
        const ssize_t n = ::recv(fd, out + done, size - done, 0);
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

std::optional<Record> readRecord(int fd, int timeoutMs)
{
    Record record;
    record.header.resize(wire::kRecordHeaderSize);
    if (!readExact(fd, record.header.data(), record.header.size(), timeoutMs))
        return std::nullopt;
    if (!wire::readVideoRecordHeader(record.header.data(), &record.fields))
        record.fields.payloadLength = wire::le32(record.header.data() + 4); // "1CAA" and others
    if (record.fields.payloadLength > 64u * 1024 * 1024)
        return std::nullopt;
    record.payload.resize(record.fields.payloadLength);
    if (!readExact(fd, record.payload.data(), record.payload.size(), timeoutMs))
        return std::nullopt;
    return record;
}

UdpReceiver::UdpReceiver(uint16_t port, bool reuse)
{
    Socket sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (reuse) {
        int on = 1;
        setsockopt(sock.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    const sockaddr_in address = loopbackAddress(port);
    if (::bind(sock.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return;
    port_ = boundPort(sock.fd());
    socket_ = std::move(sock);
}

std::optional<std::vector<uint8_t>> UdpReceiver::receive(int timeoutMs)
{
    pollfd entry {socket_.fd(), POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) != 1)
        return std::nullopt;
    std::vector<uint8_t> datagram(65'536);
    const ssize_t n = ::recv(socket_.fd(), datagram.data(), datagram.size(), 0);
    if (n < 0)
        return std::nullopt;
    datagram.resize(size_t(n));
    return datagram;
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

bool EventLog::waitFor(const std::function<bool(const std::vector<int32_t> &)> &condition, int timeoutMs)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return condition(events_); });
}

bool EventLog::waitForCount(int32_t event, size_t count, int timeoutMs)
{
    return waitFor(
        [&](const std::vector<int32_t> &events) {
            return size_t(std::count(events.begin(), events.end(), event)) >= count;
        },
        timeoutMs);
}

std::vector<uint8_t> makeFrame(uint8_t nalType, size_t size, uint32_t id)
{
    std::vector<uint8_t> frame(size);
    const uint8_t prefix[5] = {0x00, 0x00, 0x00, 0x01, uint8_t(0x60 | (nalType & 0x1F))};
    for (size_t i = 0; i < size; ++i)
        frame[i] = i < 5 ? prefix[i] : uint8_t(i * 7 + id);
    if (size >= 9)
        wire::putLe32(frame.data() + 5, id);
    return frame;
}

uint32_t frameId(const std::vector<uint8_t> &frame) { return frame.size() >= 9 ? wire::le32(frame.data() + 5) : 0; }

int openDescriptorCount()
{
    int count = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (readdir(dir))
            ++count;
        closedir(dir);
    }
    return count;
}

} // namespace velocast::push::test
