// A simulated strap on a modelled body: it synthesises ECG whose beat
// intervals swing with the breath, most of all at one breathing rate (the
// body's resonance), so a resonance assessment can be tried without
// hardware and should recommend that rate. The body breathes along with the
// pacer it is given (BleBackend::set_breathing_guide), or at a steady 5 s in
// and 11 s out without one.
#pragma once
#include <memory>

#include "sensor/ble_backend.h"

namespace cvn {

inline constexpr const char* kModelStrapName = "Polar H10 SIM00002";
inline constexpr const char* kModelStrapAddress = "A0:9E:1A:00:00:02";
/// Breaths per minute, the middle of the rates an assessment usually tries.
inline constexpr double kDefaultModelResonance = 5.5;

/// Half the peak-to-trough swing of the model's beat intervals, s, when
/// breathing at `rate_bpm`: A0 / sqrt(1 + Q^2 (r / r0 - r0 / r)^2), a driven
/// oscillator's response, largest (A0) at r0 = `resonance_bpm`. 0 for a rate
/// or resonance that is not above 0.
double model_rr_swing(double rate_bpm, double resonance_bpm);

/// The strap, advertised as kModelStrapName. A `resonance_bpm` that is not
/// finite and above 0 reads as kDefaultModelResonance. `speed`: samples
/// arrive this many times faster than real time (the program uses 1; tests
/// run a whole assessment in seconds).
std::shared_ptr<BleBackend> make_model_strap(double resonance_bpm, double speed = 1);

}  // namespace cvn
