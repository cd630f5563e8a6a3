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

/// A simulated standard strap sending the beat intervals of `ecg` (microvolts
/// at 130 Hz), found from its R-peaks as a strap finds them.
std::unique_ptr<BleManager> make_simulated_beats_link(const std::vector<double>& ecg);

}  // namespace cvn
