// A Polar H10 that is not there: it advertises a name and, once started,
// streams ECG as real PMD frames, so the live screen can be tried (and
// tested) without hardware. It goes through the same connection procedure,
// decoder and callbacks as a real strap. The plain one streams the ECG it
// was given (the program gives it the bundled "Sample 1.txt") in real time,
// looping; the model strap (sensor/model_strap.h) brings its own source.
#pragma once
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sensor/ble_backend.h"

namespace cvn {

inline constexpr const char* kSimulatedStrapName = "Polar H10 SIM00001";
inline constexpr const char* kSimulatedStrapAddress = "A0:9E:1A:00:00:01";
/// Samples per notification, as a real H10 sends at 130 Hz.
inline constexpr int kSimulatedFrameSamples = 73;

/// `ecg`: microvolt samples at 130 Hz; an empty one streams nothing.
std::shared_ptr<BleBackend> make_simulated_strap(std::vector<double> ecg);

/// Where a simulated strap's samples come from, one stream's worth.
class SimulatedEcg {
 public:
  virtual ~SimulatedEcg() = default;
  /// The next out.size() samples, microvolts at 130 Hz.
  virtual void fill(std::span<double> out) = 0;
};

struct SimulatedStrapSetup {
  std::string name;     // advertised
  std::string address;  // "A0:9E:1A:00:00:01" form
  /// A fresh source for each link, so every stream starts at its first
  /// sample; `guide` is the one set last, empty when none was. A null
  /// source streams nothing.
  std::function<std::unique_ptr<SimulatedEcg>(const BreathingGuide& guide)> source;
  /// Samples arrive this many times faster than real time (tests run long
  /// sessions in seconds); not finite or not above 0 reads as 1.
  double speed = 1;
};
std::shared_ptr<BleBackend> make_simulated_strap(SimulatedStrapSetup setup);

}  // namespace cvn
