// Loopback peers for the push engine's tests and benchmarks: a TCP listener and reader, a
// UDP receiver, an event recorder, and Annex-B frames. Everything stays on 127.0.0.1.
#pragma once

#include "push/media_wire_format.h"
#include "push/net_client.h"
#include "push/socket.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace velocast::push::test {

// Safety net for every wait; a healthy run never comes near it.
inline constexpr int kWaitMs = 10'000;

class TcpListener {
public:
    // receiveBuffer > 0 sets SO_RCVBUF before listen, so accepted sockets inherit it.
    explicit TcpListener(int backlog = 16, int receiveBuffer = 0);
    uint16_t port() const { return port_; }
    Socket accept(); // invalid when nothing arrives in time

private:
    Socket socket_;
    uint16_t port_ = 0;
};

class UdpReceiver {
public:
    explicit UdpReceiver(uint16_t port = 0); // 0 picks one
    bool isValid() const { return socket_.isValid(); }
    uint16_t port() const { return port_; }
    std::optional<std::vector<uint8_t>> receive();

private:
    Socket socket_;
    uint16_t port_ = 0;
};

// Reads exactly size bytes, or gives up after timeoutMs in all.
bool readExact(int fd, uint8_t *out, size_t size, int timeoutMs = kWaitMs);

struct Record {
    std::vector<uint8_t> header; // the 24 raw header bytes
    wire::VideoRecordHeader fields;
    std::vector<uint8_t> payload;
};
std::optional<Record> readRecord(int fd);

class EventLog final : public INetClientCallBack {
public:
    int32_t OnEvent(int32_t event) override;
    std::vector<int32_t> events() const;
    bool waitForCount(int32_t event, size_t count, int timeoutMs = kWaitMs);

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int32_t> events_;
};

// An Annex-B access unit: start code, a NAL header of nalType, the 32-bit id (so a test
// can tell frames apart), then filler.
std::vector<uint8_t> makeFrame(uint8_t nalType, size_t size, uint32_t id = 0);
uint32_t frameId(const std::vector<uint8_t> &frame);

} // namespace velocast::push::test
