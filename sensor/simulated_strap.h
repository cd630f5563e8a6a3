// A Polar H10 that is not there: it advertises as "Polar H10 SIM00001" and,
// once started, streams the ECG it was given (the program gives it the
// bundled "Sample 1.txt") as real PMD frames in real time, looping, so the
// live screen can be tried (and tested) without hardware. It goes through
// the same connection procedure, decoder and callbacks as a real strap.
#pragma once
#include <memory>
#include <vector>

#include "sensor/ble_backend.h"

namespace cvn {

inline constexpr const char* kSimulatedStrapName = "Polar H10 SIM00001";
inline constexpr const char* kSimulatedStrapAddress = "A0:9E:1A:00:00:01";
/// Samples per notification, as a real H10 sends at 130 Hz.
inline constexpr int kSimulatedFrameSamples = 73;

/// `ecg`: microvolt samples at 130 Hz; an empty one streams nothing.
std::shared_ptr<BleBackend> make_simulated_strap(std::vector<double> ecg);

}  // namespace cvn
