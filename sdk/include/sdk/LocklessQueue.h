#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

// The bulk operations are flattened so that no call (vector growth, the copy loops) sits between
// reserving a stretch and publishing it: the shorter that window, the less often another thread
// waits for it or takes the counters' cache line away in the middle.
#if defined(__GNUC__)
#define SDK_QUEUE_FLATTEN __attribute__((flatten))
#else
#define SDK_QUEUE_FLATTEN
#endif

namespace SDK {

/// Bounded lock-free multi-producer/multi-consumer ring (head/tail reservation scheme).
///
/// Each side reserves a stretch of slots by moving its head with one compare-and-swap, copies
/// without a lock, then publishes by moving its tail once every earlier reservation of the same
/// side is published. Counters are free-running 32-bit values; only their differences and the
/// masked slot number are used, so they may wrap. A side flagged single-threaded uses no atomic
/// read-modify-write at all. The owner guarantees the single-side promise it asked for.
template <typename T>
class LocklessQueue {
public:
    /// Builds a queue that holds up to `capacity` elements in the next power-of-two slots.
    /// A capacity of 0 (or one too large to address) yields a queue without storage.
    explicit LocklessQueue(unsigned int capacity, bool singleProducer = false,
                           bool singleConsumer = false)
        : singleProducer_(singleProducer), singleConsumer_(singleConsumer) {
        if (capacity == 0 || capacity > (1u << 31)) return;
        uint32_t size = 1;
        while (size < capacity) size <<= 1;
        size_ = size;
        mask_ = size - 1;
        capacity_ = capacity;
        slots_ = new T[size_]();
    }

    LocklessQueue(const LocklessQueue&) = delete;
    LocklessQueue& operator=(const LocklessQueue&) = delete;

    virtual ~LocklessQueue() {
        if (slots_ == nullptr) return;
        for (uint32_t i = size_; i > 0; --i) slots_[i - 1] = T();
        delete[] slots_;
        slots_ = nullptr;
    }

    /// Queues one element; 1 when queued, 0 when full or without storage.
    virtual int Enqueue(const T& element) {
        std::vector<T> one(1, element);
        return EnqueueBulk(one, 1);
    }

    /// Queues the vector's elements in order, as many as fit (the vector's size is the request;
    /// `count` is not consulted). Returns how many were queued: always the first ones.
    SDK_QUEUE_FLATTEN virtual int EnqueueBulk(const std::vector<T>& elements, int count) {
        (void)count;
        if (slots_ == nullptr) return 0;
        const uint32_t requested = static_cast<uint32_t>(elements.size());
        uint32_t head;
        uint32_t n;
        if (!singleProducer_) {
            head = prodHead_.load(std::memory_order_relaxed);
            do {
                const uint32_t freeSlots =
                    capacity_ + consTail_.load(std::memory_order_acquire) - head;
                n = requested < freeSlots ? requested : freeSlots;
                if (n == 0) return 0;
            } while (!prodHead_.compare_exchange_weak(head, head + n, std::memory_order_acq_rel,
                                                      std::memory_order_relaxed));
        } else {
            head = prodHead_.load(std::memory_order_relaxed);
            const uint32_t freeSlots = capacity_ + consTail_.load(std::memory_order_acquire) - head;
            n = requested < freeSlots ? requested : freeSlots;
            if (n == 0) return 0;
            prodHead_.store(head + n, std::memory_order_relaxed);
        }
        _EnqueueElements(head, elements, n);
        if (!singleProducer_) {
            WaitForTurn(prodTail_, head);
        }
        prodTail_.store(head + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    /// Takes the oldest element into `element`; 1 when taken, 0 (argument untouched) when empty.
    virtual int Dequeue(T& element) {
        std::vector<T> out;
        if (DequeueBulk(out, 1) != 1) return 0;
        element = out[0];
        return 1;
    }

    /// Appends up to `count` oldest elements to `out` (count read as unsigned: -1 takes all).
    /// Returns how many were taken.
    SDK_QUEUE_FLATTEN virtual int DequeueBulk(std::vector<T>& out, int count) {
        if (slots_ == nullptr) return 0;
        const uint32_t requested = static_cast<uint32_t>(count);
        uint32_t head;
        uint32_t n;
        if (!singleConsumer_) {
            head = consHead_.load(std::memory_order_relaxed);
            do {
                const uint32_t available = prodTail_.load(std::memory_order_acquire) - head;
                n = requested < available ? requested : available;
                if (n == 0) return 0;
                MakeRoom(out, n);
            } while (!consHead_.compare_exchange_weak(head, head + n, std::memory_order_acq_rel,
                                                      std::memory_order_relaxed));
        } else {
            head = consHead_.load(std::memory_order_relaxed);
            const uint32_t available = prodTail_.load(std::memory_order_acquire) - head;
            n = requested < available ? requested : available;
            if (n == 0) return 0;
            MakeRoom(out, n);
            consHead_.store(head + n, std::memory_order_relaxed);
        }
        _DequeueElements(head, out, n);
        if (!singleConsumer_) {
            WaitForTurn(consTail_, head);
        }
        consTail_.store(head + n, std::memory_order_release);
        return static_cast<int>(n);
    }

    /// Number of slots (a power of two), and the most elements held at once.
    uint32_t Size() const { return size_; }
    uint32_t Capacity() const { return capacity_; }
    /// Elements published and not yet reserved by a consumer: a snapshot, for statistics.
    uint32_t Count() const {
        return prodTail_.load(std::memory_order_acquire) -
               consHead_.load(std::memory_order_acquire);
    }

protected:
    /// Moves all four counters to `value` (only on an empty queue nobody else uses yet), so that
    /// tests can run the queue across the 2^32 wrap.
    void StartCountersAt(uint32_t value) {
        prodHead_.store(value);
        prodTail_.store(value);
        consHead_.store(value);
        consTail_.store(value);
    }

    void _EnqueueElements(unsigned int head, const std::vector<T>& elements, unsigned int n) {
        const T* src = elements.data();
        ForEachPiece(head, n, [&](T* slots, uint32_t offset, uint32_t count) {
            const T* from = src + offset;
            Unrolled(count, [&](uint32_t i) { slots[i] = from[i]; });
        });
    }

    void _DequeueElements(unsigned int head, std::vector<T>& out, unsigned int n) {
        const size_t base = out.size();
        out.resize(base + n);
        T* dst = out.data() + base;
        ForEachPiece(head, n, [&](T* slots, uint32_t offset, uint32_t count) {
            T* to = dst + offset;
            Unrolled(count, [&](uint32_t i) { Take(slots[i], to[i]); });
        });
    }

private:
    static void SpinPause() {
#if defined(__x86_64__) || defined(__i386__)
        _mm_pause();
#endif
    }

    // Waits until the earlier reservations of this side are published. Pauses on every look;
    // after a long wait it also yields, because the thread we wait for may have been preempted
    // between reserving and publishing, and on a machine with more threads than cores pure
    // spinning would then burn whole time slices before it runs again.
    static void WaitForTurn(const std::atomic<uint32_t>& tail, uint32_t head) {
        constexpr uint32_t kSpinsBeforeYield = 1024;
        uint32_t spins = 0;
        while (tail.load(std::memory_order_acquire) != head) {
            SpinPause();
            if (++spins >= kSpinsBeforeYield) std::this_thread::yield();
        }
    }

    // Grows the caller's vector before a stretch is reserved rather than inside it: an allocation
    // there would hold up every later consumer waiting to publish, and give the producers time
    // to take the consumer counters' cache line away between the reservation and the release.
    static void MakeRoom(std::vector<T>& out, uint32_t n) {
        if (out.capacity() - out.size() < n) out.reserve(out.size() + n);
    }

    // A stretch of n slots from counter `head` is one piece, or two when it wraps past the last
    // slot; `piece` gets the first slot of each, its offset within the stretch and its length.
    // Pointers are handed out as locals: through the members the compiler would reload the slot
    // array after every store of a pointer-typed element.
    template <typename Piece>
    void ForEachPiece(uint32_t head, uint32_t n, Piece piece) {
        const uint32_t idx = head & mask_;
        if (idx + n < size_) {
            piece(slots_ + idx, 0, n);
            return;
        }
        const uint32_t first = size_ - idx;
        piece(slots_ + idx, 0, first);
        piece(slots_, first, n - first);
    }

    // Copy loops unrolled by four: the common batch of a task's queue is a few dozen messages.
    template <typename Step>
    static void Unrolled(uint32_t n, Step step) {
        uint32_t i = 0;
        for (; i + 4 <= n; i += 4) {
            step(i);
            step(i + 1);
            step(i + 2);
            step(i + 3);
        }
        switch (n - i) {
            case 3:
                step(i + 2);
                [[fallthrough]];
            case 2:
                step(i + 1);
                [[fallthrough]];
            case 1:
                step(i);
                break;
            default:
                break;
        }
    }

    // The element leaves its slot empty, so that the queue never keeps a taken element alive; a
    // move does that without touching a shared pointer's reference count. A plain value (a raw
    // pointer) keeps nothing alive, and leaving its slot unwritten spares the producers' cache
    // lines.
    static void Take(T& slot, T& to) {
        if constexpr (std::is_trivially_copyable<T>::value) {
            to = slot;
        } else {
            to = std::move(slot);
            slot = T();
        }
    }

    // Each counter has a 128-byte line pair of its own (the adjacent-line prefetcher moves lines
    // in pairs). A head is touched by its own side only, a tail also by the other side's every
    // call: sharing a line, the other side's reads of the tail would take the head's line away
    // between each reservation and the next.
    alignas(128) std::atomic<uint32_t> prodHead_{0};
    alignas(128) std::atomic<uint32_t> prodTail_{0};
    alignas(128) std::atomic<uint32_t> consHead_{0};
    alignas(128) std::atomic<uint32_t> consTail_{0};
    alignas(128) bool singleProducer_;
    bool singleConsumer_;
    uint32_t size_ = 0;
    uint32_t mask_ = 0;
    uint32_t capacity_ = 0;
    T* slots_ = nullptr;
};

}  // namespace SDK
