#include "sensor/sensor_link.h"

#include <cstdlib>
#include <string_view>

#include "sensor/platform_backend.h"
#include "sensor/polar_ble.h"
#include "sensor/simulated_strap.h"

namespace cvn {

std::unique_ptr<BleManager> make_sensor_link() {
  const char* sim = std::getenv("CVN_SIMULATED_STRAP");
  if (sim && std::string_view(sim) == "1") {
    BleTimings t;
    t.warm_up = std::chrono::milliseconds(0);
    // Nothing to wait for; a short scan keeps the screen feeling like one.
    t.scan = std::chrono::milliseconds(2000);
    return std::make_unique<PolarBle>(make_simulated_strap(), t);
  }
  if (std::shared_ptr<BleBackend> backend = make_platform_backend())
    return std::make_unique<PolarBle>(std::move(backend));
  return nullptr;
}

}  // namespace cvn
