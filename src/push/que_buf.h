// The frame queue between the thread that produces encoded video and the thread that
// writes it to the TCP connection: a growable record buffer and a pool that circulates
// such buffers between a free list and a pending list.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace velocast::push {

// One framed record: a byte buffer that grows on demand and never shrinks.
// Not thread-safe: at any time a buffer is on one pool list or held by one thread.
class CQueBuf {
public:
    // alignment: the data pointer is rounded up to a multiple of it; 0 means none.
    explicit CQueBuf(int32_t alignment = 0);
    virtual ~CQueBuf();
    CQueBuf(const CQueBuf &) = delete;
    CQueBuf &operator=(const CQueBuf &) = delete;

    // -1 if size < 1 (or the memory cannot be had: the buffer is then empty);
    //  1 if the capacity already holds size bytes (storage and content kept);
    //  0 after replacing the storage with a new one of size bytes. Content is never
    //    preserved across a growth: length is 0 afterwards.
    int32_t Alloc(int32_t size);

    int32_t Capacity() const { return capacity_; }
    int32_t Length() const { return length_; }
    // Clamped to [0, Capacity()].
    void SetLength(int32_t length);
    int32_t Offset() const { return offset_; }
    // Clamped to [0, Capacity()].
    void SetOffset(int32_t offset);
    int32_t Alignment() const { return alignment_; }
    uint8_t *Data() { return data_; }
    const uint8_t *Data() const { return data_; }
    // The owner's number for what the buffer holds (the TCP client's record number).
    uint32_t Tag() const { return tag_; }
    void SetTag(uint32_t tag) { tag_ = tag; }

private:
    int32_t capacity_ = 0;
    int32_t length_ = 0;
    int32_t alignment_ = 0;
    std::unique_ptr<uint8_t[]> storage_;
    uint8_t *data_ = nullptr;
    int32_t offset_ = 0;
    uint32_t tag_ = 0;
};

// A fixed set of buffers that circulate between a free list and a pending list (both FIFO)
// under one mutex and two conditions. The lists hold pointers only: whoever created the
// buffers owns them. Every operation is thread-safe; conditions are signalled after the
// mutex is released.
class CQueBufPool {
public:
    using Discardable = bool (*)(const CQueBuf &);

    CQueBufPool() = default;
    ~CQueBufPool();
    CQueBufPool(const CQueBufPool &) = delete;
    CQueBufPool &operator=(const CQueBufPool &) = delete;

    // false if already initialised (nothing changes). ownerCapacity bounds how many buffers
    // the owners array records.
    bool Init(int32_t ownerCapacity);
    // Clears both lists and the owners array (never the buffers) and forgets Init.
    void Destroy();

    void PutFree(CQueBuf *buf);
    void PutPending(CQueBuf *buf);

    // Wait rule for the three takers: take the head at once if there is one; with timeoutMs 0
    // give up at once; otherwise wait on the list's condition until an absolute wall-clock
    // deadline fixed at the first wait, and give up when it passes. nullptr when giving up.
    CQueBuf *GetFree(int32_t timeoutMs);
    CQueBuf *PopPending(int32_t timeoutMs);
    // Waits like PopPending for a head, then takes it only if isDiscardable(head) holds.
    CQueBuf *TakeOldestIfDiscardable(int32_t timeoutMs, Discardable isDiscardable);

    // Drops discardable records from the head of the pending list onto the free list, but
    // never below kPurgeFloor pending records, and stops at the first record that must be
    // kept. Returns how many moved.
    int32_t Purge(Discardable isDiscardable);

    // Makes every present and future wait give up at once (shutdown).
    void Stop();

    // Takes buf out of the pool for good so that it can be destroyed: removes it from the
    // owners array and from whichever list holds it. Returns true if a list held it (nobody
    // else can reach it now). Returns false if some thread holds it at the moment; that
    // thread's later PutFree/PutPending of it is then ignored, so the pool never hands the
    // pointer out again.
    bool Retire(CQueBuf *buf);

    int64_t FreeCount() const;
    int64_t PendingCount() const;
    std::vector<CQueBuf *> Owners() const;
    bool IsInitialized() const;

    static constexpr int64_t kPurgeFloor = 9;

private:
    CQueBuf *take(std::deque<CQueBuf *> &list, std::condition_variable &cond, int32_t timeoutMs,
                  Discardable isDiscardable);
    bool isRetiredLocked(CQueBuf *buf);

    bool initialized_ = false;
    mutable std::mutex mutex_;
    bool stopped_ = false;
    std::condition_variable freeAvailable_;
    std::condition_variable pendingAvailable_;
    int32_t ownerCapacity_ = 0;
    std::deque<CQueBuf *> freeList_;
    std::deque<CQueBuf *> pendingList_;
    std::vector<CQueBuf *> owners_;
    std::vector<CQueBuf *> retired_;
};

} // namespace velocast::push
