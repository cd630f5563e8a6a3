#include "sensor/sensor_link.h"

#include "sensor/platform_backend.h"
#include "sensor/polar_ble.h"
#include "sensor/simulated_strap.h"

namespace cvn {

std::unique_ptr<BleManager> make_sensor_link(std::optional<std::vector<double>> simulated_ecg) {
  if (simulated_ecg) {
    BleTimings t;
    t.warm_up = std::chrono::milliseconds(0);
    // Nothing to wait for; a short scan keeps the screen feeling like one.
    t.scan = std::chrono::milliseconds(2000);
    return std::make_unique<PolarBle>(make_simulated_strap(std::move(*simulated_ecg)), t);
  }
  if (std::shared_ptr<BleBackend> backend = make_platform_backend())
    return std::make_unique<PolarBle>(std::move(backend));
  return nullptr;
}

}  // namespace cvn
