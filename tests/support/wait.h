// Polling for conditions that other threads make true.
#pragma once
#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sensor/ble_manager.h"
#include "sensor/polar_ble.h"

namespace cvn::test {

/// Polls `done` every 5 ms; false when `limit` passes first.
inline bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

/// A link's timings cut short for tests: no warm-up, a 50 ms scan.
inline BleTimings quick_timings() {
  BleTimings t;
  t.warm_up = std::chrono::milliseconds(0);
  t.scan = t.retry_pause = std::chrono::milliseconds(50);
  t.settings_poll = t.before_start = std::chrono::milliseconds(5);
  return t;
}

/// Collects what reaches a sensor link's callbacks.
struct Sink {
  std::mutex mu;
  std::vector<std::string> statuses;
  std::vector<double> samples;

  SamplesCallback samples_cb() {
    return [this](const std::vector<double>& b) {
      std::lock_guard<std::mutex> g(mu);
      samples.insert(samples.end(), b.begin(), b.end());
    };
  }
  StatusCallback status_cb() {
    return [this](const std::string& s) {
      std::lock_guard<std::mutex> g(mu);
      statuses.push_back(s);
    };
  }
  std::vector<std::string> status_list() {
    std::lock_guard<std::mutex> g(mu);
    return statuses;
  }
  bool wait_for(const std::string& status,
                std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    return wait_until(
        [&] {
          std::lock_guard<std::mutex> g(mu);
          return std::find(statuses.begin(), statuses.end(), status) != statuses.end();
        },
        limit);
  }
};

}  // namespace cvn::test
