// A list of pointers that only grows and that other threads walk without a
// lock while it grows.
//
// The elements live in segments that never move: segment s holds 16 << s
// elements, so growth allocates a new segment and never copies. An element
// is stored first and published after, by a release store of the count; a
// walker loads the count with acquire and reads only below it, so it sees
// every element complete and never touches a moved buffer. Appends take a
// short writer lock of their own, so that two appending threads (two
// discovery threads, say) cannot claim the same slot; walkers never take it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

template <typename Pointer>
class GrowingList {
public:
    GrowingList() = default;
    GrowingList(const GrowingList&) = delete;
    GrowingList& operator=(const GrowingList&) = delete;
    ~GrowingList() { clear(); }

    size_t size() const { return count_.load(std::memory_order_acquire); }

    // Only for an index below a size() that this thread has read.
    Pointer operator[](size_t index) const
    {
        size_t segment, offset;
        locate(index, segment, offset);
        return segments_[segment].load(std::memory_order_acquire)[offset].load(std::memory_order_relaxed);
    }

    // Returns false if no memory could be had; the list is then unchanged.
    bool append(Pointer value)
    {
        std::lock_guard<std::mutex> guard(writerLock_);
        size_t index = count_.load(std::memory_order_relaxed);
        size_t segment, offset;
        locate(index, segment, offset);
        std::atomic<Pointer>* cells = segments_[segment].load(std::memory_order_relaxed);
        if (cells == nullptr) {
            cells = new (std::nothrow) std::atomic<Pointer>[segmentCapacity(segment)];
            if (cells == nullptr) return false;
            segments_[segment].store(cells, std::memory_order_release);
        }
        cells[offset].store(value, std::memory_order_relaxed);
        count_.store(index + 1, std::memory_order_release);
        return true;
    }

    // Frees the list's own storage, not what the elements point to. Only
    // while no other thread walks the list.
    void clear()
    {
        std::lock_guard<std::mutex> guard(writerLock_);
        count_.store(0, std::memory_order_release);
        for (auto& segment : segments_) delete[] segment.exchange(nullptr, std::memory_order_acq_rel);
    }

private:
    static constexpr size_t firstCapacity = 16;
    static constexpr size_t segmentCount = 40;

    static size_t segmentCapacity(size_t segment) { return firstCapacity << segment; }

    static void locate(size_t index, size_t& segment, size_t& offset)
    {
        size_t block = index / firstCapacity + 1;  // 1-based: segment s covers blocks 2^s .. 2^(s+1)-1
        segment = 0;
        while ((block >> (segment + 1)) != 0) ++segment;
        offset = index - firstCapacity * ((size_t{1} << segment) - 1);
    }

    std::atomic<std::atomic<Pointer>*> segments_[segmentCount] = {};
    std::atomic<size_t> count_{0};
    std::mutex writerLock_;
};
