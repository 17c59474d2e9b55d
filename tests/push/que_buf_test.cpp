#include "push/media_wire_format.h"
#include "push/que_buf.h"
#include "push/tcp_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

namespace velocast::push {
namespace {

// A record as the TCP client builds it: the 24-byte header stating payloadLength, then the
// payload: start code, then a NAL header of nalType.
void fillRecord(CQueBuf &buf, uint32_t payloadLength, uint8_t nalType, size_t heldPayload = SIZE_MAX)
{
    const size_t held = std::min<size_t>(heldPayload, payloadLength);
    ASSERT_GE(buf.Alloc(int32_t(wire::kRecordHeaderSize + held)), 0);
    uint8_t *out = buf.Data();
    wire::writeVideoRecordHeader(out, {payloadLength, 0, 0, 0});
    const uint8_t prefix[5] = {0, 0, 0, 1, uint8_t(0x60 | nalType)};
    for (size_t i = 0; i < held; ++i)
        out[wire::kRecordHeaderSize + i] = i < 5 ? prefix[i] : uint8_t(i);
    buf.SetLength(int32_t(wire::kRecordHeaderSize + held));
}

constexpr int32_t kWaitForever = INT32_MAX;
constexpr uint8_t kSlice = 1, kIdr = 5, kSei = 6, kSps = 7, kPps = 8;

TEST(CQueBufTest, AllocGrowsKeepsOrRefuses)
{
    CQueBuf buf;
    EXPECT_EQ(buf.Alloc(0), -1);
    EXPECT_EQ(buf.Alloc(-5), -1);
    EXPECT_EQ(buf.Capacity(), 0);

    EXPECT_EQ(buf.Alloc(100), 0);
    EXPECT_EQ(buf.Capacity(), 100);
    EXPECT_EQ(buf.Length(), 0);
    std::memset(buf.Data(), 0xAB, 100);
    buf.SetLength(50);

    EXPECT_EQ(buf.Alloc(100), 1) << "equal size fits";
    EXPECT_EQ(buf.Alloc(60), 1) << "never shrinks";
    EXPECT_EQ(buf.Length(), 50);
    EXPECT_EQ(buf.Data()[99], 0xAB);

    EXPECT_EQ(buf.Alloc(101), 0);
    EXPECT_EQ(buf.Capacity(), 101);
    EXPECT_EQ(buf.Length(), 0) << "content is not carried across a growth";

    buf.SetLength(1'000);
    EXPECT_EQ(buf.Length(), 101) << "length never exceeds the capacity";
}

TEST(CQueBufTest, AlignedDataStaysInsideTheAllocation)
{
    for (int32_t alignment : {1, 16, 64, 4096}) {
        CQueBuf buf(alignment);
        ASSERT_EQ(buf.Alloc(33), 0);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buf.Data()) % uintptr_t(alignment), 0u) << alignment;
        std::memset(buf.Data(), 1, 33); // out of bounds would show under ASan
    }
}

struct DiscardCase {
    uint32_t payloadLength;
    uint8_t nalType;
    size_t heldPayload;
    bool discardable;
};

class DiscardableRecordTest : public ::testing::TestWithParam<DiscardCase> {};

TEST_P(DiscardableRecordTest, Classifies)
{
    const DiscardCase c = GetParam();
    CQueBuf buf;
    fillRecord(buf, c.payloadLength, c.nalType, c.heldPayload);
    EXPECT_EQ(IsDiscardableRecord(buf), c.discardable);
}

INSTANTIATE_TEST_SUITE_P(Table, DiscardableRecordTest,
                         ::testing::Values(DiscardCase {16, kIdr, SIZE_MAX, true}, // too short to be looked at
                                           DiscardCase {16, kSps, SIZE_MAX, true},
                                           DiscardCase {17, kIdr, SIZE_MAX, false},
                                           DiscardCase {17, kSps, SIZE_MAX, false},
                                           DiscardCase {17, kPps, SIZE_MAX, false},
                                           DiscardCase {17, kSlice, SIZE_MAX, true},
                                           DiscardCase {5000, kSei, SIZE_MAX, true}, // SEI is no key
                                           DiscardCase {5000, 0, SIZE_MAX, true},
                                           // header claims a key frame the buffer does not hold
                                           DiscardCase {5000, kIdr, 4, true}));

TEST(DiscardableRecord, BufferShorterThanAHeaderIsDiscardable)
{
    CQueBuf buf;
    ASSERT_EQ(buf.Alloc(10), 0);
    std::memset(buf.Data(), 0xFF, 10);
    buf.SetLength(10);
    EXPECT_TRUE(IsDiscardableRecord(buf));
}

// A pool with its buffers, the way the TCP client holds them.
struct PoolFixture : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(pool.Init(35)); }
    CQueBuf *make(uint8_t nalType, uint32_t payloadLength = 100)
    {
        buffers.push_back(std::make_unique<CQueBuf>());
        fillRecord(*buffers.back(), payloadLength, nalType);
        return buffers.back().get();
    }
    void queue(int count, uint8_t nalType)
    {
        for (int i = 0; i < count; ++i)
            pool.PutPending(make(nalType));
    }
    std::vector<std::unique_ptr<CQueBuf>> buffers;
    CQueBufPool pool;
};

TEST_F(PoolFixture, PurgeKeepsNineAndDropsOnlyFromTheHead)
{
    queue(9, kSlice);
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 0) << "nine is the floor";
    EXPECT_EQ(pool.PendingCount(), 9);
    EXPECT_EQ(pool.FreeCount(), 0);

    queue(3, kSlice);
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 3);
    EXPECT_EQ(pool.PendingCount(), 9);
    EXPECT_EQ(pool.FreeCount(), 3);
    // The survivors are the newest nine, still in order.
    for (size_t i = 3; i < 12; ++i)
        EXPECT_EQ(pool.PopPending(0), buffers[i].get());
}

TEST_F(PoolFixture, PurgeStopsAtTheFirstKeyRecord)
{
    queue(2, kSlice);
    CQueBuf *key = make(kSps);
    pool.PutPending(key);
    queue(10, kSlice);
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 2);
    EXPECT_EQ(pool.PendingCount(), 11);
    EXPECT_EQ(pool.PopPending(0), key);
}

TEST_F(PoolFixture, PurgeMovesShortKeyRecordsToo)
{
    // 16-byte payloads are discardable whatever their NAL type.
    for (int i = 0; i < 11; ++i)
        pool.PutPending(make(kIdr, 16));
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 2);
}

TEST_F(PoolFixture, TakeOldestOnlyWhenTheHeadIsDiscardable)
{
    CQueBuf *key = make(kIdr);
    pool.PutPending(key);
    queue(3, kSlice);
    EXPECT_EQ(pool.TakeOldestIfDiscardable(0, IsDiscardableRecord), nullptr);
    EXPECT_EQ(pool.PendingCount(), 4) << "a key head stays where it is";

    EXPECT_EQ(pool.PopPending(0), key);
    EXPECT_EQ(pool.TakeOldestIfDiscardable(0, IsDiscardableRecord), buffers[1].get()) << "the oldest one";
    EXPECT_EQ(pool.PendingCount(), 2);
}

TEST_F(PoolFixture, EmptyListsGiveUpAtOnceWithZeroTimeout)
{
    EXPECT_EQ(pool.GetFree(0), nullptr);
    EXPECT_EQ(pool.PopPending(0), nullptr);
    EXPECT_EQ(pool.TakeOldestIfDiscardable(0, IsDiscardableRecord), nullptr);
    EXPECT_EQ(pool.GetFree(20), nullptr) << "a timed wait gives up too";
}

TEST_F(PoolFixture, OwnersRecordOnlyUpToTheirCapacity)
{
    CQueBufPool small;
    ASSERT_TRUE(small.Init(2));
    EXPECT_FALSE(small.Init(5)) << "second Init changes nothing";
    CQueBuf *a = make(kSlice), *b = make(kSlice), *c = make(kSlice);
    small.PutFree(a);
    small.PutFree(b);
    small.PutFree(c);
    small.PutFree(small.GetFree(0)); // a again: circulates, not recorded twice
    EXPECT_EQ(small.Owners(), (std::vector<CQueBuf *> {a, b}));
    EXPECT_EQ(small.GetFree(0), b);
    EXPECT_EQ(small.GetFree(0), c) << "the unrecorded buffer circulates all the same";
    EXPECT_EQ(small.GetFree(0), a);

    small.Destroy();
    EXPECT_TRUE(small.Owners().empty());
    EXPECT_TRUE(small.Init(2)) << "Init works again after Destroy";
}

TEST_F(PoolFixture, RetiredBuffersNeverComeBack)
{
    CQueBuf *listed = make(kSlice), *held = make(kSlice);
    pool.PutFree(listed);
    pool.PutFree(held);
    ASSERT_EQ(pool.GetFree(0), listed);
    pool.PutFree(listed);
    CQueBuf *taken = pool.GetFree(0);
    ASSERT_EQ(taken, held);

    EXPECT_TRUE(pool.Retire(listed)) << "was on the free list: free to destroy";
    EXPECT_FALSE(pool.Retire(held)) << "a thread holds it";
    EXPECT_EQ(pool.FreeCount(), 0);
    EXPECT_TRUE(pool.Owners().empty());

    pool.PutPending(held); // the holder hands it back: ignored
    EXPECT_EQ(pool.PendingCount(), 0);
    EXPECT_EQ(pool.PopPending(0), nullptr);
}

TEST_F(PoolFixture, WaitersWakeOnPutAndOnStop)
{
    CQueBuf *buf = make(kSlice);
    auto waiter = std::async(std::launch::async, [&] { return pool.PopPending(kWaitForever); });
    pool.PutPending(buf);
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiter.get(), buf);

    auto stopped = std::async(std::launch::async, [&] { return pool.GetFree(kWaitForever); });
    pool.Stop();
    ASSERT_EQ(stopped.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(stopped.get(), nullptr);
    pool.PutFree(buf);
    EXPECT_EQ(pool.GetFree(0), nullptr) << "a stopped pool hands nothing out";
}

// Producer and consumer threads pass records through the pool as the TCP client does; the
// consumer must see every record, in order, intact.
TEST(CQueBufPoolStress, ProducerAndConsumerKeepOrderAndBuffers)
{
    constexpr int kBuffers = 6;
    constexpr uint32_t kRecords = 20'000;
    CQueBufPool pool;
    ASSERT_TRUE(pool.Init(kBuffers));
    std::vector<std::unique_ptr<CQueBuf>> owned;
    for (int i = 0; i < kBuffers; ++i) {
        owned.push_back(std::make_unique<CQueBuf>());
        owned.back()->Alloc(64);
        pool.PutFree(owned.back().get());
    }

    std::atomic<uint32_t> mismatches {0};
    std::jthread consumer([&] {
        for (uint32_t expected = 0; expected < kRecords;) {
            CQueBuf *buf = pool.PopPending(10);
            if (!buf)
                continue;
            if (buf->Length() != 8 || wire::le32(buf->Data()) != expected || wire::le32(buf->Data() + 4) != ~expected)
                mismatches.fetch_add(1);
            ++expected;
            pool.PutFree(buf);
        }
    });
    for (uint32_t i = 0; i < kRecords;) {
        CQueBuf *buf = pool.GetFree(10);
        if (!buf)
            continue;
        wire::putLe32(buf->Data(), i);
        wire::putLe32(buf->Data() + 4, ~i);
        buf->SetLength(8);
        pool.PutPending(buf);
        ++i;
    }
    consumer.join();
    EXPECT_EQ(mismatches.load(), 0u);
    EXPECT_EQ(pool.FreeCount() + pool.PendingCount(), kBuffers);
}

} // namespace
} // namespace velocast::push
