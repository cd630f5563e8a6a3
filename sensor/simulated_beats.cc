#include "sensor/simulated_beats.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "sensor/ble_common.h"
#include "sensor/hrs.h"
#include "sensor/simulated_device.h"

namespace cvn {

namespace {

using Handler = std::function<void(const std::vector<std::uint8_t>&)>;

constexpr const char* kClosed = "simulated strap: link closed";
// A strap without beats to report still sends its rate about once a second.
constexpr double kIdleNotificationSeconds = 1.0;

class BeatsLink : public SimulatedGatt {
 public:
  BeatsLink(std::vector<double> rr, double speed)
      : SimulatedGatt(3, kHrsServiceUuid, {kHrsMeasurementUuid}),
        notifier_(std::move(rr)),
        speed_(speed) {}
  ~BeatsLink() override { close(); }

  bool connected() override {
    std::lock_guard<std::mutex> g(mu_);
    return !closed_;
  }
  Status subscribe(const std::string& uuid, Handler h) override {
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return Status::error(kClosed);
    if (uuid != kHrsMeasurementUuid) return Status::error("simulated strap: cannot notify " + uuid);
    handler_ = std::move(h);
    if (!streamer_.joinable()) streamer_ = std::thread([this] { stream(); });
    return Status();
  }
  Status write(const std::string&, const std::vector<std::uint8_t>&) override {
    return Status::error("simulated strap: nothing to write to");
  }
  void close() override {
    std::thread t;
    {
      std::lock_guard<std::mutex> g(mu_);
      closed_ = true;
      handler_ = nullptr;
      t = std::move(streamer_);
    }
    wake_.notify_all();
    if (t.joinable()) t.join();
  }

 private:
  void stream() {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    for (;;) {
      TimedValue v = notifier_.next();
      // Due times count from the start: no drift however long it runs.
      const auto due = start + std::chrono::duration_cast<clock::duration>(
                                   std::chrono::duration<double>(v.due / speed_));
      std::unique_lock<std::mutex> g(mu_);
      if (wake_.wait_until(g, due, [this] { return closed_; })) return;
      if (handler_) handler_(v.value);
    }
  }

  BeatNotifier notifier_;  // used by the streamer only
  const double speed_;
  std::mutex mu_;
  std::condition_variable wake_;
  bool closed_ = false;
  Handler handler_;
  std::thread streamer_;
};

class BeatsStrap : public SimulatedBackend {
 public:
  BeatsStrap(std::vector<double> rr, double speed)
      : SimulatedBackend({parse_ble_address(kSimulatedBeatsAddress), kSimulatedBeatsName, true}),
        rr_(std::move(rr)),
        speed_(std::isfinite(speed) && speed > 0 ? speed : 1) {}

 private:
  std::shared_ptr<BleConnection> make_link() override {
    return std::make_shared<BeatsLink>(rr_, speed_);
  }

  const std::vector<double> rr_;
  const double speed_;
};

}  // namespace

TimedValue BeatNotifier::next() {
  const std::uint64_t k = sent_++;
  HeartRateMeasurement m;
  m.contact_supported = m.contact_detected = true;
  if (k % 5 == 4) m.energy_kj = static_cast<int>(k / 5);
  TimedValue out;
  const int count = rr_.empty() ? 0 : kRrPattern[k % 4];
  for (int i = 0; i < count; ++i) {
    const double rr = rr_[pos_];
    pos_ = (pos_ + 1) % rr_.size();
    elapsed_ += rr;
    m.rr_seconds.push_back(rr);
    bpm_ = static_cast<int>(std::lround(60.0 / rr));
  }
  if (count > 0)
    out.due = elapsed_;
  else
    out.due =
        rr_.empty() ? due_ + kIdleNotificationSeconds : std::max(due_, elapsed_ + rr_[pos_] / 2);
  due_ = out.due;
  m.heart_rate_bpm = bpm_;
  out.value = encode_heart_rate_measurement(m, k / 4 % 2 == 1);
  return out;
}

std::shared_ptr<BleBackend> make_simulated_beats_strap(std::vector<double> rr_seconds,
                                                       double speed) {
  std::erase_if(rr_seconds, [](double rr) { return !(rr > 0); });
  return std::make_shared<BeatsStrap>(std::move(rr_seconds), speed);
}

}  // namespace cvn
