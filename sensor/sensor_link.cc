#include "sensor/sensor_link.h"

#include "analysis/ecg.h"
#include "base/constants.h"
#include "sensor/platform_backend.h"
#include "sensor/polar_ble.h"
#include "sensor/simulated_beats.h"
#include "sensor/simulated_strap.h"

namespace cvn {

namespace {

// Nothing to wait for; a short scan keeps the screen feeling like one.
BleTimings simulated_timings() {
  BleTimings t;
  t.warm_up = std::chrono::milliseconds(0);
  t.scan = std::chrono::milliseconds(2000);
  return t;
}

}  // namespace

std::unique_ptr<BleManager> make_sensor_link(std::optional<std::vector<double>> simulated_ecg) {
  if (simulated_ecg)
    return std::make_unique<PolarBle>(make_simulated_strap(std::move(*simulated_ecg)),
                                      simulated_timings());
  if (std::shared_ptr<BleBackend> backend = make_platform_backend())
    return std::make_unique<PolarBle>(std::move(backend));
  return nullptr;
}

std::unique_ptr<BleManager> make_simulated_beats_link(const std::vector<double>& ecg) {
  std::vector<double> rr =
      peak_intervals(find_r_peaks(ecg, kSampleRate, kMaxHeartRate), kSampleRate);
  return std::make_unique<PolarBle>(make_simulated_beats_strap(std::move(rr)), simulated_timings());
}

}  // namespace cvn
