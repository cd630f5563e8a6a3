#include "base/thread_set.h"

#include <system_error>

namespace cvn {

bool ThreadSet::spawn(std::function<void(std::stop_token)> work) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::lock_guard<std::mutex> g(mu_);
  reap();
  try {
    threads_.push_back({done, std::jthread([done, work = std::move(work)](std::stop_token stop) {
                          work(stop);
                          *done = true;
                        })});
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void ThreadSet::reap() {
  for (auto it = threads_.begin(); it != threads_.end();) {
    if (it->done->load()) {
      it->thread.join();  // it has returned: this is immediate
      it = threads_.erase(it);
    } else {
      ++it;
    }
  }
}

void ThreadSet::join_all() {
  std::list<Entry> all;
  {
    std::lock_guard<std::mutex> g(mu_);
    all.swap(threads_);
  }
  // Outside the lock: a thread that is stopping may still start another.
  for (Entry& e : all) e.thread.request_stop();
  for (Entry& e : all) e.thread.join();
}

std::size_t ThreadSet::size() {
  std::lock_guard<std::mutex> g(mu_);
  return threads_.size();
}

}  // namespace cvn
