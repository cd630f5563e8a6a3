// The sensor link: finds Bluetooth LE devices and streams ECG from a Polar
// H10, or beat-to-beat intervals from any standard heart-rate strap.
// One implementation per platform backend, plus a simulated strap; tests
// use fakes. Operations never throw: failures are status texts.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "analysis/resonance.h"

namespace cvn {

/// What a device can stream: ECG (a Polar H10, which can stream beats as
/// well), or only beat intervals over the standard Heart Rate Service.
enum class SensorKind { kEcg, kBeats };

struct BleDevice {
  std::string name;     // advertised local name, UTF-8, never empty
  std::string address;  // "12:34:56:78:9A:BC", most significant byte first
  SensorKind kind = SensorKind::kEcg;
};

/// What a scan found, or why it found nothing.
struct ScanResult {
  std::vector<BleDevice> devices;  // ascending by address
  std::string error;               // for the user; empty on success
};

/// One batch of ECG samples in microvolts, in arrival order.
using SamplesCallback = std::function<void(const std::vector<double>&)>;
/// One notification's beat-to-beat intervals in seconds, oldest first, as
/// the strap sent them: an interval of 0 or of many seconds is passed on
/// for the cleaning step to judge.
using BeatsCallback = std::function<void(const std::vector<double>&)>;
/// A user-facing status text (a connection step or an error).
using StatusCallback = std::function<void(const std::string&)>;
/// Where the pacer is `seconds` after the stream's first sample. A simulated
/// strap that models a body breathes along with it; a real strap has no use
/// for it.
using BreathingGuide = std::function<PacerPosition(double seconds)>;

class BleManager {
 public:
  virtual ~BleManager() = default;
  /// False only when the system plainly reports no Bluetooth adapter.
  virtual bool available() = 0;
  /// Scans for named Polar H10s and devices that advertise the Heart Rate
  /// Service (blocks about 10 s). On failure the list is empty and the
  /// error says why, in words for the user.
  virtual ScanResult scan() = 0;
  /// Returns at once; connects and streams on a worker thread, reporting
  /// through the callbacks until stop().
  virtual void connectAndStream(const std::string& address, SamplesCallback on_samples,
                                StatusCallback on_status) = 0;
  /// As connectAndStream, but streams beat intervals over the Heart Rate
  /// Service instead of ECG: from any standard strap, a Polar H10 included.
  /// A link without that service streams nothing.
  virtual void connect_and_stream_beats(const std::string& /*address*/, BeatsCallback /*on_beats*/,
                                        StatusCallback /*on_status*/) {}
  /// Ends any stream; no callback runs after it returns.
  virtual void stop() = 0;
  /// How the next connectAndStream's person is asked to breathe.
  virtual void set_breathing_guide(BreathingGuide /*guide*/) {}
};

}  // namespace cvn
