// Threads that end on their own, each of them joined. A detached thread may
// outlive the object it works on, and its owner can only spin until a counter
// says it is gone; here every thread is joined, by the next start once it has
// finished, or by join_all.
#pragma once
#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

namespace cvn {

class ThreadSet {
 public:
  ThreadSet() = default;
  ~ThreadSet() { join_all(); }
  ThreadSet(const ThreadSet&) = delete;
  ThreadSet& operator=(const ThreadSet&) = delete;

  /// Runs `work` on a thread of its own; its stop token is set by join_all.
  /// Finished threads are joined here first, so the set holds only threads
  /// that still run. False, with `work` not run, when the system has no
  /// thread to give.
  bool spawn(std::function<void(std::stop_token)> work);

  /// Asks every thread to stop and waits for all of them. REQUIRES: not
  /// called from one of the set's own threads.
  void join_all();

  /// Threads started and not yet joined (some may have finished).
  std::size_t size();

 private:
  struct Entry {
    std::shared_ptr<std::atomic<bool>> done;
    std::jthread thread;
  };
  void reap();  // REQUIRES: mu_ held

  std::mutex mu_;
  std::list<Entry> threads_;
};

}  // namespace cvn
