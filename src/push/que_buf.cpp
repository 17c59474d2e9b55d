#include "push/que_buf.h"

#include <algorithm>
#include <new>

namespace velocast::push {

CQueBuf::CQueBuf(int32_t alignment) : alignment_(std::max<int32_t>(alignment, 0)) {}

CQueBuf::~CQueBuf() = default;

int32_t CQueBuf::Alloc(int32_t size)
{
    if (size < 1)
        return -1;
    if (capacity_ >= size)
        return 1;

    storage_.reset();
    data_ = nullptr;
    capacity_ = 0;
    length_ = 0;
    offset_ = 0;

    const size_t extra = alignment_ > 0 ? size_t(alignment_) - 1 : 0;
    storage_.reset(new (std::nothrow) uint8_t[size_t(size) + extra]);
    if (!storage_)
        return -1;
    auto address = reinterpret_cast<uintptr_t>(storage_.get());
    if (alignment_ > 0)
        address = (address + extra) / uintptr_t(alignment_) * uintptr_t(alignment_);
    data_ = reinterpret_cast<uint8_t *>(address);
    capacity_ = size;
    return 0;
}

void CQueBuf::SetLength(int32_t length) { length_ = std::clamp(length, 0, capacity_); }

void CQueBuf::SetOffset(int32_t offset) { offset_ = std::clamp(offset, 0, capacity_); }

CQueBufPool::~CQueBufPool() { Destroy(); }

bool CQueBufPool::Init(int32_t ownerCapacity)
{
    std::lock_guard lock(mutex_);
    if (initialized_)
        return false;
    ownerCapacity_ = std::max<int32_t>(ownerCapacity, 0);
    owners_.reserve(size_t(ownerCapacity_));
    initialized_ = true;
    return true;
}

void CQueBufPool::Destroy()
{
    std::lock_guard lock(mutex_);
    initialized_ = false;
    owners_.clear();
    owners_.shrink_to_fit();
    freeList_.clear();
    pendingList_.clear();
    retired_.clear();
}

bool CQueBufPool::isRetiredLocked(CQueBuf *buf)
{
    if (retired_.empty())
        return false;
    auto it = std::find(retired_.begin(), retired_.end(), buf);
    if (it == retired_.end())
        return false;
    retired_.erase(it);
    return true;
}

void CQueBufPool::PutFree(CQueBuf *buf)
{
    if (!buf)
        return;
    {
        std::lock_guard lock(mutex_);
        if (isRetiredLocked(buf))
            return;
        freeList_.push_back(buf);
        if (owners_.size() < size_t(ownerCapacity_) && std::find(owners_.begin(), owners_.end(), buf) == owners_.end())
            owners_.push_back(buf);
    }
    freeAvailable_.notify_one();
}

void CQueBufPool::PutPending(CQueBuf *buf)
{
    if (!buf)
        return;
    {
        std::lock_guard lock(mutex_);
        if (isRetiredLocked(buf))
            return;
        pendingList_.push_back(buf);
    }
    pendingAvailable_.notify_one();
}

CQueBuf *CQueBufPool::take(std::deque<CQueBuf *> &list, std::condition_variable &cond, int32_t timeoutMs,
                           Discardable isDiscardable)
{
    std::unique_lock lock(mutex_);
    std::chrono::system_clock::time_point deadline;
    bool haveDeadline = false;
    for (;;) {
        if (stopped_)
            return nullptr;
        if (!list.empty()) {
            CQueBuf *head = list.front();
            if (isDiscardable && !isDiscardable(*head))
                return nullptr;
            list.pop_front();
            return head;
        }
        if (timeoutMs == 0)
            return nullptr;
        if (!haveDeadline) {
            // Absolute wall-clock deadline in microsecond resolution, fixed at the first wait:
            // spurious and stolen wake-ups do not extend the total wait.
            deadline = std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now())
                + std::chrono::milliseconds(timeoutMs);
            haveDeadline = true;
        }
        if (cond.wait_until(lock, deadline) == std::cv_status::timeout)
            return nullptr;
    }
}

CQueBuf *CQueBufPool::GetFree(int32_t timeoutMs) { return take(freeList_, freeAvailable_, timeoutMs, nullptr); }

CQueBuf *CQueBufPool::PopPending(int32_t timeoutMs)
{
    return take(pendingList_, pendingAvailable_, timeoutMs, nullptr);
}

CQueBuf *CQueBufPool::TakeOldestIfDiscardable(int32_t timeoutMs, Discardable isDiscardable)
{
    if (!isDiscardable)
        return nullptr;
    return take(pendingList_, pendingAvailable_, timeoutMs, isDiscardable);
}

int32_t CQueBufPool::Purge(Discardable isDiscardable)
{
    if (!isDiscardable)
        return 0;
    int32_t moved = 0;
    {
        std::lock_guard lock(mutex_);
        // The floor keeps a short backlog even when all of it could go: a purge only trims a
        // queue that has really fallen behind.
        while (int64_t(pendingList_.size()) > kPurgeFloor && isDiscardable(*pendingList_.front())) {
            freeList_.push_back(pendingList_.front());
            pendingList_.pop_front();
            ++moved;
        }
    }
    if (moved > 0)
        freeAvailable_.notify_all();
    return moved;
}

void CQueBufPool::Stop()
{
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    freeAvailable_.notify_all();
    pendingAvailable_.notify_all();
}

bool CQueBufPool::Retire(CQueBuf *buf)
{
    std::lock_guard lock(mutex_);
    std::erase(owners_, buf);
    for (auto *list : {&freeList_, &pendingList_}) {
        auto it = std::find(list->begin(), list->end(), buf);
        if (it != list->end()) {
            list->erase(it);
            return true;
        }
    }
    if (std::find(retired_.begin(), retired_.end(), buf) == retired_.end())
        retired_.push_back(buf);
    return false;
}

int64_t CQueBufPool::FreeCount() const
{
    std::lock_guard lock(mutex_);
    return int64_t(freeList_.size());
}

int64_t CQueBufPool::PendingCount() const
{
    std::lock_guard lock(mutex_);
    return int64_t(pendingList_.size());
}

std::vector<CQueBuf *> CQueBufPool::Owners() const
{
    std::lock_guard lock(mutex_);
    return owners_;
}

bool CQueBufPool::IsInitialized() const
{
    std::lock_guard lock(mutex_);
    return initialized_;
}

} // namespace velocast::push
