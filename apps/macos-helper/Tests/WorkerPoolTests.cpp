#include <atomic>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "WorkerPool.h"

namespace orven {
namespace {

// A gate the jobs wait at, so a test decides when they may finish.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = false;
    int waiting = 0;

    void pass()
    {
        std::unique_lock lock(mutex);
        ++waiting;
        changed.notify_all();
        changed.wait(lock, [this] { return open; });
    }
    void waitForWaiting(int count)
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return waiting >= count; });
    }
    void release()
    {
        std::lock_guard lock(mutex);
        open = true;
        changed.notify_all();
    }
};

TEST(WorkerPool, RunsEveryAcceptedJobAndRefusesBeyondItsQueue)
{
    Gate gate;
    std::atomic<int> ran{0};
    {
        WorkerPool pool(2, 3);
        for (int i = 0; i < 2; ++i) ASSERT_TRUE(pool.submit([&] { gate.pass(); ++ran; }));
        gate.waitForWaiting(2);  // both threads busy, queue empty
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(pool.submit([&] { ++ran; })) << i;
        EXPECT_FALSE(pool.submit([&] { ++ran; })) << "the fourth waiting job exceeds the queue";
        EXPECT_EQ(pool.threadCount(), 2u);
        gate.release();
    }
    EXPECT_EQ(ran.load(), 5);
}

TEST(WorkerPool, StartsThreadsOnDemandWithinItsLimit)
{
    WorkerPool pool(3, 16);
    EXPECT_EQ(pool.threadCount(), 0u);
    std::atomic<int> ran{0};
    for (int i = 0; i < 20; ++i) {
        std::mutex done;
        std::condition_variable finished;
        bool over = false;
        ASSERT_TRUE(pool.submit([&] {
            ++ran;
            std::lock_guard lock(done);
            over = true;
            finished.notify_all();
        }));
        std::unique_lock lock(done);
        finished.wait(lock, [&] { return over; });
    }
    EXPECT_EQ(ran.load(), 20);
    EXPECT_GE(pool.threadCount(), 1u);
    EXPECT_LE(pool.threadCount(), 3u);
}

} // namespace
} // namespace orven
