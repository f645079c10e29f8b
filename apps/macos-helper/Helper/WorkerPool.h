#pragma once
// A bounded set of threads for requests that must not run on the
// connection's own queue (pings, the powerline probe). Threads are started
// on demand up to the limit and kept; jobs wait in a queue of fixed capacity.
// Beyond that the job is refused, so a flood of requests grows neither
// threads nor memory without bound; the caller then answers the request
// itself.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace orven {

class WorkerPool {
public:
    WorkerPool(std::size_t maxThreads, std::size_t queueCapacity);
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;
    // Runs every job already accepted, then joins the threads.
    ~WorkerPool();

    // False when as many jobs as threads and queue places together are
    // waiting or running, or no thread could be started; the job has then
    // not run and never will.
    [[nodiscard]] bool submit(std::function<void()> job);

    std::size_t threadCount() const;

private:
    void work();

    const std::size_t maxThreads_;
    const std::size_t queueCapacity_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;
    std::size_t running_ = 0;
    bool stopping_ = false;
};

} // namespace orven
