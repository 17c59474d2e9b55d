// Push engine figures, all over loopback:
//  - frame pool put/pop pairs per second;
//  - PushSendFrame of a 20 KB frame to the last byte read by the receiver (p50/p99), beside
//    a plain blocking send of the same record on a socket with the same options;
//  - sustained throughput of the TCP client beside a plain blocking send loop;
//  - a paced 4 Mb/s, 30 fps stream, counting purges, overwrites and refusals.
#include "loopback.h"

#include "push/push_api.h"
#include "push/que_buf.h"
#include "push/tcp_client.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace velocast::push {
namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kFrameBytes = 20 * 1024;

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

void reportPercentiles(benchmark::State &state, std::vector<double> &samples)
{
    if (samples.empty())
        return;
    std::sort(samples.begin(), samples.end());
    state.counters["p50_us"] = samples[samples.size() / 2];
    state.counters["p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
}

// A connected loopback pair with the sender options of the TCP client (no Nagle, 32 KB
// send buffer), blocking, for the plain-send baselines.
struct PlainPair {
    // smallSendBuffer false keeps the kernel's default (auto-tuned) send buffer.
    explicit PlainPair(bool smallSendBuffer = true)
    {
        test::TcpListener listener;
        sender = Socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        int on = 1;
        setsockopt(sender.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        int sendBuffer = kSendBufferBytes;
        if (smallSendBuffer)
            setsockopt(sender.fd(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(listener.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(sender.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        receiver = listener.accept();
    }
    bool sendAll(const uint8_t *data, size_t size) const
    {
        for (size_t done = 0; done < size;) {
            const ssize_t n = ::send(sender.fd(), data + done, size - done, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            done += size_t(n);
        }
        return true;
    }
    Socket sender;
    Socket receiver;
};

std::vector<uint8_t> record(const std::vector<uint8_t> &payload)
{
    std::vector<uint8_t> out(wire::kRecordHeaderSize + payload.size());
    wire::writeVideoRecordHeader(out.data(), {uint32_t(payload.size()), 0, 0, 0});
    std::copy(payload.begin(), payload.end(), out.begin() + wire::kRecordHeaderSize);
    return out;
}

void BM_PoolPutPopPair(benchmark::State &state)
{
    CQueBufPool pool;
    pool.Init(1);
    CQueBuf buffer;
    buffer.Alloc(64);
    for (auto _ : state) {
        pool.PutPending(&buffer);
        benchmark::DoNotOptimize(pool.PopPending(0));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PoolPutPopPair);

// A producer and a consumer thread passing 35 buffers round, as the TCP client does.
void BM_PoolPutPopPairTwoThreads(benchmark::State &state)
{
    constexpr int kBuffers = 35;
    CQueBufPool pool;
    pool.Init(kBuffers);
    std::vector<std::unique_ptr<CQueBuf>> buffers;
    for (int i = 0; i < kBuffers; ++i) {
        buffers.push_back(std::make_unique<CQueBuf>());
        buffers.back()->Alloc(64);
        pool.PutFree(buffers.back().get());
    }
    std::atomic<bool> done {false};
    std::jthread consumer([&] {
        while (!done.load()) {
            if (CQueBuf *b = pool.PopPending(10))
                pool.PutFree(b);
        }
    });
    for (auto _ : state) {
        CQueBuf *b = pool.GetFree(1000);
        if (b)
            pool.PutPending(b);
    }
    done = true;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PoolPutPopPairTwoThreads)->UseRealTime();

void BM_PushSendFrameToLastByte(benchmark::State &state)
{
    test::TcpListener listener;
    PushHandle handle = PushCreate();
    if (PushInit(handle, "127.0.0.1", listener.port()) != kPushOk) {
        state.SkipWithError("PushInit failed");
        return;
    }
    Socket peer = listener.accept();
    const auto payload = test::makeFrame(1, kFrameBytes);
    PushFrame frame {kFrameTypeVideo, uint32_t(payload.size()), kFrameFlagOther, payload.data(), 0, 0};
    std::vector<uint8_t> in(wire::kRecordHeaderSize + kFrameBytes);
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        PushSendFrame(handle, &frame);
        if (!test::readExact(peer.fd(), in.data(), in.size())) {
            state.SkipWithError("record did not arrive");
            break;
        }
        samples.push_back(micros(Clock::now() - start));
    }
    PushClose(handle);
    reportPercentiles(state, samples);
}
BENCHMARK(BM_PushSendFrameToLastByte)->UseRealTime()->Iterations(5000);

void BM_PlainSendToLastByte(benchmark::State &state)
{
    PlainPair pair;
    const auto out = record(test::makeFrame(1, kFrameBytes));
    std::vector<uint8_t> in(out.size());
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (!pair.sendAll(out.data(), out.size()) || !test::readExact(pair.receiver.fd(), in.data(), in.size())) {
            state.SkipWithError("plain send failed");
            break;
        }
        samples.push_back(micros(Clock::now() - start));
    }
    reportPercentiles(state, samples);
}
BENCHMARK(BM_PlainSendToLastByte)->UseRealTime()->Iterations(5000);

// Reads and counts everything until the peer closes.
std::jthread drainer(int fd, std::atomic<uint64_t> &bytes)
{
    return std::jthread([fd, &bytes] {
        std::vector<uint8_t> sink(256 * 1024);
        for (;;) {
            const ssize_t n = ::recv(fd, sink.data(), sink.size(), 0);
            if (n <= 0)
                return;
            bytes.fetch_add(uint64_t(n), std::memory_order_relaxed);
        }
    });
}

// The producer holds back while 20 records are pending, so nothing is dropped and the
// figure is what the sender thread can write.
void BM_TcpClientThroughput(benchmark::State &state)
{
    const auto size = size_t(state.range(0));
    test::TcpListener listener;
    CTcpClient client;
    if (client.Open("127.0.0.1", listener.port(), nullptr) != kOpenOk) {
        state.SkipWithError("Open failed");
        return;
    }
    Socket peer = listener.accept();
    std::atomic<uint64_t> received {0};
    std::jthread drain = drainer(peer.fd(), received);
    const auto payload = test::makeFrame(1, size);
    const uint64_t expected = uint64_t(state.max_iterations) * (size + wire::kRecordHeaderSize);
    int64_t dropped = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        while (client.PendingCount() >= 20)
            std::this_thread::yield();
        const int32_t result = SendVideo(&client, 0, 0, 0, payload.data(), int32_t(size));
        dropped += result == kSendOverwrote || result < 0;
    }
    while (received.load() < expected && client.IsConnected())
        std::this_thread::yield();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    client.Close();
    state.counters["MB_per_s"] = double(received.load()) / seconds / 1e6;
    state.counters["dropped"] = double(dropped);
}
BENCHMARK(BM_TcpClientThroughput)->Arg(20 * 1024)->Arg(80 * 1024)->Iterations(20000)->UseRealTime();

// range(0): record payload bytes; range(1): 1 with the client's 32 KB send buffer, 0 with
// the kernel's default one.
void BM_PlainSendThroughput(benchmark::State &state)
{
    const auto size = size_t(state.range(0));
    PlainPair pair(state.range(1) != 0);
    std::atomic<uint64_t> received {0};
    const auto out = record(test::makeFrame(1, size));
    const uint64_t expected = uint64_t(state.max_iterations) * out.size();
    std::jthread drain = drainer(pair.receiver.fd(), received);
    const auto start = Clock::now();
    for (auto _ : state)
        pair.sendAll(out.data(), out.size());
    while (received.load() < expected)
        std::this_thread::yield();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ::shutdown(pair.sender.fd(), SHUT_RDWR);
    state.counters["MB_per_s"] = double(received.load()) / seconds / 1e6;
}
BENCHMARK(BM_PlainSendThroughput)
    ->ArgsProduct({{20 * 1024, 80 * 1024}, {1, 0}})
    ->Iterations(20000)
    ->UseRealTime();

// 4 Mb/s at 30 fps for 10 s: a 60 KB key frame every 2 s (SPS first) and P frames sized to
// keep the average, paced by the clock as an encoder delivers them.
void BM_Stream4Mbps30fps(benchmark::State &state)
{
    constexpr int kFps = 30, kSeconds = 10, kGop = 60;
    constexpr size_t kKeyBytes = 60'000;
    constexpr size_t kBitsPerSecond = 4'000'000;
    constexpr size_t kPBytes = (kBitsPerSecond / 8 * kGop / kFps - kKeyBytes) / (kGop - 1);
    for (auto _ : state) {
        test::TcpListener listener;
        CTcpClient client;
        if (client.Open("127.0.0.1", listener.port(), nullptr) != kOpenOk) {
            state.SkipWithError("Open failed");
            return;
        }
        Socket peer = listener.accept();
        std::atomic<uint64_t> received {0};
        std::jthread drain = drainer(peer.fd(), received);
        int purges = 0, overwrites = 0, refused = 0;
        uint64_t sent = 0;
        const auto start = Clock::now();
        for (int i = 0; i < kFps * kSeconds; ++i) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(1'000'000LL * i / kFps));
            const bool key = i % kGop == 0;
            const auto payload = test::makeFrame(key ? 7 : 1, key ? kKeyBytes : kPBytes, uint32_t(i));
            const int32_t result = SendVideo(&client, 0, key, 0, payload.data(), int32_t(payload.size()));
            purges += result > kSendPurged;
            overwrites += result == kSendOverwrote;
            refused += result < 0;
            sent += payload.size() + wire::kRecordHeaderSize;
        }
        while (received.load() < sent && client.IsConnected())
            std::this_thread::yield();
        client.Close();
        state.counters["purges"] = purges;
        state.counters["overwrites"] = overwrites;
        state.counters["refused"] = refused;
        state.counters["delivered_pct"] = 100.0 * double(received.load()) / double(sent);
        state.counters["Mbps"] = double(sent) * 8 / kSeconds / 1e6;
    }
}
BENCHMARK(BM_Stream4Mbps30fps)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

} // namespace
} // namespace velocast::push

BENCHMARK_MAIN();
