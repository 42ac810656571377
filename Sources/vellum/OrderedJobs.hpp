#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace vellum {

// Runs work(0) ... work(count - 1) on several threads and hands each result to deliver(index, result) on the
// calling thread, in order. No more than twice the threads are under way or wait for one before them.
//   stop   once true, nothing further is started or delivered; work has to look at it too
//   work   const to its surroundings, and throws nothing
//   tick   called on the calling thread, at least ten times a second; may set stop
// What deliver or tick throws sets stop and passes through once all threads have ended.
template <typename Work, typename Deliver, typename Tick>
void runInOrder(std::size_t count, std::size_t threadCount, std::atomic<bool>& stop, const Work& work,
                const Deliver& deliver, const Tick& tick) {
  using Result = std::invoke_result_t<Work, std::size_t>;
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::size_t, Result> finished;
  std::size_t started = 0, delivered = 0;

  const auto workOn = [&] {
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [&] { return stop || started == count || started < delivered + 2 * threadCount; });
      if (stop || started == count) return;
      const std::size_t index = started++;
      lock.unlock();
      Result result = work(index);
      lock.lock();
      finished.emplace(index, std::move(result));
      changed.notify_all();
    }
  };

  struct Threads {
    std::vector<std::thread> threads;
    std::function<void()> beforeJoin;
    ~Threads() {
      beforeJoin();
      for (std::thread& thread : threads) thread.join();
    }
  };
  Threads workers{{}, [&] {
                    const std::lock_guard lock(mutex);
                    stop = true;
                    changed.notify_all();
                  }};
  for (std::size_t k = 0; k < std::min(threadCount, count); ++k) workers.threads.emplace_back(workOn);

  while (delivered < count && !stop) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::milliseconds(100), [&] { return finished.contains(delivered); });
    auto next = finished.extract(delivered);
    lock.unlock();
    tick();
    if (next.empty() || stop) continue;
    deliver(delivered, std::move(next.mapped()));
    lock.lock();
    ++delivered;
    changed.notify_all();
  }
}

}  // namespace vellum
