// Creates the program's one sensor link.
#pragma once
#include <memory>

#include "sensor/ble_manager.h"

namespace cvn {

/// The simulated strap when CVN_SIMULATED_STRAP=1, else the platform's
/// Bluetooth LE link, or null when this build has none.
std::unique_ptr<BleManager> make_sensor_link();

}  // namespace cvn
