#include "WorkerPool.h"

#include <system_error>
#include <utility>

namespace orven {

WorkerPool::WorkerPool(std::size_t maxThreads, std::size_t queueCapacity)
    : maxThreads_(maxThreads), queueCapacity_(queueCapacity)
{
}

WorkerPool::~WorkerPool()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (auto& thread : threads_) thread.join();
}

bool WorkerPool::submit(std::function<void()> job)
{
    std::unique_lock lock(mutex_);
    // Counted as jobs not finished, not as the queue's length: a thread still
    // starting has not taken its job yet, and the bound must not depend on
    // how fast threads start.
    if (stopping_ || queue_.size() + running_ >= maxThreads_ + queueCapacity_) return false;
    // Every waiting job needs a thread that will get to it; start one when
    // the idle ones are all spoken for.
    if (idle_ <= queue_.size() && threads_.size() < maxThreads_) {
        try {
            threads_.emplace_back([this] { work(); });
        } catch (const std::system_error&) {
            if (threads_.empty()) return false;
        }
    }
    queue_.push_back(std::move(job));
    lock.unlock();
    wake_.notify_one();
    return true;
}

std::size_t WorkerPool::threadCount() const
{
    std::lock_guard lock(mutex_);
    return threads_.size();
}

void WorkerPool::work()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        ++idle_;
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        --idle_;
        if (queue_.empty()) return;  // stopping, nothing left
        auto job = std::move(queue_.front());
        queue_.pop_front();
        ++running_;
        lock.unlock();
        job();
        job = nullptr;  // release what it captured before sleeping again
        lock.lock();
        --running_;
    }
}

} // namespace orven
