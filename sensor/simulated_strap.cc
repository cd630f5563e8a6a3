#include "sensor/simulated_strap.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "base/constants.h"
#include "sensor/ble_common.h"
#include "sensor/pmd.h"
#include "sensor/simulated_device.h"

namespace cvn {

namespace {

using Handler = std::function<void(const std::vector<std::uint8_t>&)>;

constexpr const char* kClosed = "simulated strap: link closed";

// A recording played from its start, looping.
class LoopedRecording : public SimulatedEcg {
 public:
  explicit LoopedRecording(std::shared_ptr<const std::vector<double>> ecg) : ecg_(std::move(ecg)) {}
  void fill(std::span<double> out) override {
    const std::vector<double>& ecg = *ecg_;
    for (double& v : out) {
      v = ecg[pos_];
      pos_ = (pos_ + 1) % ecg.size();
    }
  }

 private:
  const std::shared_ptr<const std::vector<double>> ecg_;  // never empty
  std::size_t pos_ = 0;
};

class SimulatedLink : public SimulatedGatt {
 public:
  SimulatedLink(std::unique_ptr<SimulatedEcg> source, double speed)
      : SimulatedGatt(5, kPmdServiceUuid, {kPmdControlUuid, kPmdDataUuid}),
        source_(std::move(source)),
        speed_(speed) {}
  ~SimulatedLink() override { close(); }

  bool connected() override { return !closed(); }
  Status subscribe(const std::string& uuid, Handler h) override {
    std::lock_guard<std::mutex> g(mu_);
    if (closed_) return Status::error(kClosed);
    (uuid == kPmdDataUuid ? data_ : control_) = std::move(h);
    return Status();
  }
  Status write(const std::string& uuid, const std::vector<std::uint8_t>& bytes) override {
    std::unique_lock<std::mutex> g(mu_);
    if (closed_) return Status::error(kClosed);
    if (uuid != kPmdControlUuid || bytes.empty()) return Status();
    if (bytes == pmd_settings_request() && control_) {
      // A settings reply as the strap sends it: response code F0, the
      // operation, the type, status 0, then the settings themselves.
      control_({0xF0, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0x82, 0x00, 0x01, 0x01, 0x0E, 0x00});
    } else if (bytes == pmd_start_ecg() && !streamer_.joinable()) {
      streamer_ = std::thread([this] { stream(); });
    }
    return Status();
  }
  void close() override {
    std::thread t;
    {
      std::lock_guard<std::mutex> g(mu_);
      closed_ = true;
      data_ = nullptr;
      control_ = nullptr;
      t = std::move(streamer_);
    }
    wake_.notify_all();
    // Never the streamer itself: it calls the handler holding mu_, so a
    // close() from there would not get this far.
    if (t.joinable()) t.join();
  }

 private:
  bool closed() {
    std::lock_guard<std::mutex> g(mu_);
    return closed_;
  }

  void stream() {
    if (!source_) return;
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    std::vector<double> batch(kSimulatedFrameSamples);
    for (std::uint64_t frame = 1;; ++frame) {
      // Frame k is due when its last sample has been "measured": no drift
      // however long the session runs.
      auto due =
          start + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(
                      static_cast<double>(frame * kSimulatedFrameSamples) / kSampleRate / speed_));
      std::unique_lock<std::mutex> g(mu_);
      if (wake_.wait_until(g, due, [this] { return closed_; })) return;
      source_->fill(batch);
      // Timestamps in nanoseconds, as the strap counts them: the strap's
      // own time, whatever the speed.
      std::uint64_t ns = frame * kSimulatedFrameSamples * 1000000000ull / kSampleRateInt;
      if (data_) data_(encode_ecg_frame(ns, batch));
    }
  }

  const std::unique_ptr<SimulatedEcg> source_;  // used by the streamer only
  const double speed_;
  std::mutex mu_;
  std::condition_variable wake_;
  bool closed_ = false;
  Handler data_, control_;
  std::thread streamer_;
};

class SimulatedStrap : public SimulatedBackend {
 public:
  explicit SimulatedStrap(SimulatedStrapSetup setup)
      : SimulatedBackend({parse_ble_address(setup.address), setup.name, false}),
        setup_(std::move(setup)) {
    if (!std::isfinite(setup_.speed) || !(setup_.speed > 0)) setup_.speed = 1;
  }
  void set_breathing_guide(BreathingGuide guide) override {
    std::lock_guard<std::mutex> g(mu_);
    guide_ = std::move(guide);
  }

 private:
  std::shared_ptr<BleConnection> make_link() override {
    BreathingGuide guide;
    {
      std::lock_guard<std::mutex> g(mu_);
      guide = guide_;
    }
    return std::make_shared<SimulatedLink>(setup_.source ? setup_.source(guide) : nullptr,
                                           setup_.speed);
  }

  SimulatedStrapSetup setup_;
  std::mutex mu_;
  BreathingGuide guide_;  // the engine sets it from its own thread
};

}  // namespace

std::shared_ptr<BleBackend> make_simulated_strap(SimulatedStrapSetup setup) {
  return std::make_shared<SimulatedStrap>(std::move(setup));
}

std::shared_ptr<BleBackend> make_simulated_strap(std::vector<double> ecg) {
  auto shared = std::make_shared<const std::vector<double>>(std::move(ecg));
  SimulatedStrapSetup setup{kSimulatedStrapName, kSimulatedStrapAddress, nullptr, 1};
  if (!shared->empty())
    setup.source = [shared](const BreathingGuide&) -> std::unique_ptr<SimulatedEcg> {
      return std::make_unique<LoopedRecording>(shared);
    };
  return make_simulated_strap(std::move(setup));
}

}  // namespace cvn
