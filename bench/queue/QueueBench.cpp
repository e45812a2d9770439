// Throughput of the agent's lock-free queue against its peers, all in one run: producers and
// consumers move a fixed number of items per iteration in batches of 1, 8, 32 or 128.
//   Args: {batch size, producers (= consumers)}
#include <benchmark/benchmark.h>
#include <immintrin.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "framework/Message.h"
#include "sdk/LocklessQueue.h"

#ifdef HAVE_RTE_RING
#include <rte_ring.h>
#endif
#ifdef HAVE_MOODYCAMEL
#include <concurrentqueue/concurrentqueue.h>
#endif
#ifdef HAVE_BOOST_LOCKFREE
#include <boost/lockfree/queue.hpp>
#endif

namespace {

constexpr unsigned kCapacity = 4096;
constexpr long kItemsPerIteration = 1 << 17;

class NullMessage : public Framework::Message {
public:
    int MessageHandle(void*) override { return 0; }
};

// Each adapter moves up to n items: Push returns how many of items[0..n) it queued, Pop how
// many it appended to `out` (cleared by the caller).
template <typename T>
class AgentQueue {
public:
    using Item = T;
    AgentQueue() : queue_(kCapacity) {}
    int Push(const std::vector<T>& items) { return queue_.EnqueueBulk(items, 0); }
    int Pop(std::vector<T>& out, int n) { return queue_.DequeueBulk(out, n); }

private:
    SDK::LocklessQueue<T> queue_;
};

#ifdef HAVE_RTE_RING
class RteRing {
public:
    using Item = void*;
    RteRing() {
        const ssize_t bytes = rte_ring_get_memsize(kCapacity);
        ring_ = static_cast<rte_ring*>(std::aligned_alloc(64, static_cast<size_t>(bytes)));
        rte_ring_init(ring_, "bench", kCapacity, 0);  // multi-producer, multi-consumer
    }
    ~RteRing() { std::free(ring_); }
    int Push(const std::vector<void*>& items) {
        return static_cast<int>(rte_ring_enqueue_burst(
            ring_, items.data(), static_cast<unsigned>(items.size()), nullptr));
    }
    int Pop(std::vector<void*>& out, int n) {
        out.resize(static_cast<size_t>(n));
        const unsigned got = rte_ring_dequeue_burst(ring_, out.data(), n, nullptr);
        out.resize(got);
        return static_cast<int>(got);
    }

private:
    rte_ring* ring_ = nullptr;
};
#endif

#ifdef HAVE_MOODYCAMEL
class Moodycamel {
public:
    using Item = void*;
    Moodycamel() : queue_(kCapacity) {}
    int Push(const std::vector<void*>& items) {
        return queue_.enqueue_bulk(items.data(), items.size()) ? static_cast<int>(items.size()) : 0;
    }
    int Pop(std::vector<void*>& out, int n) {
        out.resize(static_cast<size_t>(n));
        const size_t got = queue_.try_dequeue_bulk(out.data(), static_cast<size_t>(n));
        out.resize(got);
        return static_cast<int>(got);
    }

private:
    moodycamel::ConcurrentQueue<void*> queue_;
};
#endif

#ifdef HAVE_BOOST_LOCKFREE
class BoostLockfree {
public:
    using Item = void*;
    BoostLockfree() : queue_(kCapacity) {}
    int Push(const std::vector<void*>& items) {
        int done = 0;
        for (void* item : items) {
            if (!queue_.bounded_push(item)) break;
            ++done;
        }
        return done;
    }
    int Pop(std::vector<void*>& out, int n) {
        void* item = nullptr;
        int got = 0;
        while (got < n && queue_.pop(item)) {
            out.push_back(item);
            ++got;
        }
        return got;
    }

private:
    boost::lockfree::queue<void*> queue_;
};
#endif

class MutexDeque {
public:
    using Item = void*;
    int Push(const std::vector<void*>& items) {
        std::lock_guard<std::mutex> lock(mutex_);
        const size_t room = kCapacity - queue_.size();
        const size_t n = items.size() < room ? items.size() : room;
        queue_.insert(queue_.end(), items.begin(), items.begin() + static_cast<long>(n));
        return static_cast<int>(n);
    }
    int Pop(std::vector<void*>& out, int n) {
        std::lock_guard<std::mutex> lock(mutex_);
        int got = 0;
        while (got < n && !queue_.empty()) {
            out.push_back(queue_.front());
            queue_.pop_front();
            ++got;
        }
        return got;
    }

private:
    std::mutex mutex_;  // guards queue_
    std::deque<void*> queue_;
};

template <typename T>
T MakeItem(long i);
template <>
void* MakeItem<void*>(long i) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(i + 1));
}
template <>
std::shared_ptr<Framework::Message> MakeItem<std::shared_ptr<Framework::Message>>(long) {
    static const auto shared = std::make_shared<NullMessage>();
    return shared;
}

// Waits briefly, then gives the core away: with more threads than cores a spinning side would
// otherwise starve the one it waits for.
void Backoff(int& idle) {
    if (++idle < 64) {
        _mm_pause();
    } else {
        std::this_thread::yield();
    }
}

// The CPUs this process may run on. Each side gets its own, taken in turn (producers first), so
// that every queue meets the same placement instead of whatever the scheduler picks that run.
std::vector<int> AllowedCpus() {
    std::vector<int> cpus;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) return cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
    }
    return cpus;
}

void PinTo(const std::vector<int>& cpus, int index) {
    if (cpus.size() < 2) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpus[static_cast<size_t>(index) % cpus.size()], &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

// The consumers' shared tally, on a cache line pair of its own: next to anything the producers
// read it would slow every queue down by a cache miss per call.
struct alignas(128) Tally {
    std::atomic<long> consumed{0};
};

template <typename Queue>
void RunIteration(Queue& queue, int batch, int pairs) {
    using Item = typename Queue::Item;
    static const std::vector<int> cpus = AllowedCpus();
    const long perProducer = kItemsPerIteration / pairs;
    auto tally = std::make_unique<Tally>();
    std::atomic<long>& consumed = tally->consumed;
    std::vector<std::thread> threads;
    // Threads take what they use by value: reading the main thread's frame in the loop would
    // share its cache lines with whatever else lives there.
    for (int p = 0; p < pairs; ++p) {
        threads.emplace_back([&queue, batch, perProducer, p] {
            PinTo(cpus, p);
            std::vector<Item> full(static_cast<size_t>(batch));
            for (int i = 0; i < batch; ++i) full[static_cast<size_t>(i)] = MakeItem<Item>(i);
            std::vector<Item> rest;
            long sent = 0;
            int idle = 0;
            while (sent < perProducer) {
                const long want = std::min<long>(batch, perProducer - sent);
                const std::vector<Item>* items = &full;
                if (want < batch) {
                    rest.assign(full.begin(), full.begin() + want);
                    items = &rest;
                }
                const int put = queue.Push(*items);
                if (put == 0) {
                    Backoff(idle);
                    continue;
                }
                idle = 0;
                sent += put;
            }
        });
    }
    for (int c = 0; c < pairs; ++c) {
        threads.emplace_back([&queue, &consumed, batch, pairs, c] {
            PinTo(cpus, pairs + c);
            std::vector<Item> out;
            out.reserve(static_cast<size_t>(batch));
            int idle = 0;
            while (consumed.load(std::memory_order_relaxed) < kItemsPerIteration) {
                out.clear();
                const int got = queue.Pop(out, batch);
                if (got == 0) {
                    Backoff(idle);
                    continue;
                }
                idle = 0;
                consumed.fetch_add(got, std::memory_order_relaxed);
            }
        });
    }
    for (auto& t : threads) t.join();
}

template <typename Queue>
void BM_Queue(benchmark::State& state) {
    const int batch = static_cast<int>(state.range(0));
    const int pairs = static_cast<int>(state.range(1));
    Queue queue;
    for (auto _ : state) RunIteration(queue, batch, pairs);
    state.SetItemsProcessed(state.iterations() * kItemsPerIteration);
}

void Configs(benchmark::internal::Benchmark* b) {
    for (int pairs : {1, 2}) {
        for (int batch : {1, 8, 32, 128}) b->Args({batch, pairs});
    }
    b->ArgNames({"batch", "pairs"})->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK_TEMPLATE(BM_Queue, AgentQueue<void*>)->Apply(Configs);
BENCHMARK_TEMPLATE(BM_Queue, AgentQueue<std::shared_ptr<Framework::Message>>)->Apply(Configs);
#ifdef HAVE_RTE_RING
BENCHMARK_TEMPLATE(BM_Queue, RteRing)->Apply(Configs);
#endif
#ifdef HAVE_MOODYCAMEL
BENCHMARK_TEMPLATE(BM_Queue, Moodycamel)->Apply(Configs);
#endif
#ifdef HAVE_BOOST_LOCKFREE
BENCHMARK_TEMPLATE(BM_Queue, BoostLockfree)->Apply(Configs);
#endif
BENCHMARK_TEMPLATE(BM_Queue, MutexDeque)->Apply(Configs);

}  // namespace

BENCHMARK_MAIN();
