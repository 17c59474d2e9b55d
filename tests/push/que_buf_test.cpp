#include "push/media_wire_format.h"
#include "push/que_buf.h"
#include "push/tcp_client.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace velocast::push {
namespace {

constexpr uint8_t kSlice = 1, kIdr = 5, kSei = 6, kSps = 7, kPps = 8;

// A record as the TCP client builds it: the 24-byte header stating payloadLength, then
// heldPayload bytes of payload (start code, then a NAL header of nalType).
void fillRecord(CQueBuf &buf, uint32_t payloadLength, uint8_t nalType, size_t heldPayload = SIZE_MAX)
{
    const size_t held = std::min<size_t>(heldPayload, payloadLength);
    ASSERT_GE(buf.Alloc(int32_t(wire::kRecordHeaderSize + held)), 0);
    wire::writeVideoRecordHeader(buf.Data(), {payloadLength, 0, 0, 0});
    const uint8_t prefix[5] = {0, 0, 0, 1, uint8_t(0x60 | nalType)};
    std::memcpy(buf.Data() + wire::kRecordHeaderSize, prefix, std::min<size_t>(held, 5));
    buf.SetLength(int32_t(wire::kRecordHeaderSize + held));
}

TEST(CQueBufTest, AllocGrowsKeepsOrRefuses)
{
    CQueBuf buf;
    EXPECT_EQ(buf.Alloc(0), -1);
    EXPECT_EQ(buf.Alloc(100), 0);
    buf.SetLength(50);
    EXPECT_EQ(buf.Alloc(100), 1) << "equal size fits";
    EXPECT_EQ(buf.Alloc(60), 1) << "never shrinks";
    EXPECT_EQ(buf.Length(), 50);
    EXPECT_EQ(buf.Alloc(101), 0);
    EXPECT_EQ(buf.Capacity(), 101);
    EXPECT_EQ(buf.Length(), 0) << "content is not carried across a growth";
}

TEST(CQueBufTest, DiscardableRecords)
{
    const struct {
        uint32_t payloadLength;
        uint8_t nalType;
        size_t heldPayload;
        bool discardable;
    } cases[] = {
        {16, kIdr, SIZE_MAX, true}, // too short to be looked at
        {17, kIdr, SIZE_MAX, false},
        {17, kSps, SIZE_MAX, false},
        {17, kPps, SIZE_MAX, false},
        {17, kSlice, SIZE_MAX, true},
        {5000, kSei, SIZE_MAX, true}, // SEI is no key
        {5000, kIdr, 4, true}, // a header claiming a key frame the buffer does not hold
    };
    for (const auto &c : cases) {
        CQueBuf buf;
        fillRecord(buf, c.payloadLength, c.nalType, c.heldPayload);
        EXPECT_EQ(IsDiscardableRecord(buf), c.discardable) << c.payloadLength << " " << int(c.nalType);
    }
}

// A pool with buffers owned by the fixture, as the TCP client owns its own.
struct CQueBufPoolTest : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(pool.Init(35)); }
    CQueBuf *make(uint8_t nalType)
    {
        buffers.push_back(std::make_unique<CQueBuf>());
        fillRecord(*buffers.back(), 100, nalType);
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

TEST_F(CQueBufPoolTest, PurgeKeepsNineAndDropsOnlyFromTheHead)
{
    EXPECT_EQ(pool.GetFree(0), nullptr) << "empty, no wait";
    queue(9, kSlice);
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 0) << "nine is the floor";
    queue(3, kSlice);
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 3);
    EXPECT_EQ(pool.PendingCount(), 9);
    EXPECT_EQ(pool.FreeCount(), 3);
    EXPECT_EQ(pool.PopPending(0), buffers[3].get()) << "the oldest went";

    CQueBuf *key = make(kSps);
    pool.PutPending(key);
    queue(10, kSlice);
    EXPECT_EQ(pool.Purge(IsDiscardableRecord), 8) << "it stops at the key record, though 11 remain";
    EXPECT_EQ(pool.PopPending(0), key);
}

TEST_F(CQueBufPoolTest, OwnersRecordedUpToTheCapacityAndRetiredForGood)
{
    CQueBufPool small;
    ASSERT_TRUE(small.Init(2));
    EXPECT_FALSE(small.Init(5)) << "a second Init changes nothing";
    CQueBuf *a = make(kSlice), *b = make(kSlice), *c = make(kSlice);
    for (CQueBuf *buf : {a, b, c})
        small.PutFree(buf);
    small.PutFree(small.GetFree(0)); // a again: not recorded twice
    EXPECT_EQ(small.Owners(), (std::vector<CQueBuf *> {a, b}));
    EXPECT_EQ(small.GetFree(0), b);
    EXPECT_EQ(small.GetFree(0), c) << "an unrecorded buffer circulates all the same";

    // Retired buffers never come back: a listed one is free to destroy, a held one is not,
    // and handing the held one back later is ignored.
    EXPECT_TRUE(small.Retire(a));
    EXPECT_FALSE(small.Retire(b)) << "a thread holds it";
    EXPECT_TRUE(small.Owners().empty());
    small.PutPending(b);
    EXPECT_EQ(small.PendingCount() + small.FreeCount(), 0);
}

} // namespace
} // namespace velocast::push
