// Creates the program's one sensor link.
#pragma once
#include <memory>
#include <optional>
#include <vector>

#include "sensor/ble_manager.h"

namespace cvn {

/// A simulated strap streaming `simulated_ecg` when it is given, else the
/// platform's Bluetooth LE link, or null when this build has none.
std::unique_ptr<BleManager> make_sensor_link(
    std::optional<std::vector<double>> simulated_ecg = std::nullopt);

}  // namespace cvn
