// The "Compute TFR" job: both time-frequency heat-maps of the session so far,
// computed on a thread of its own and handed to the browser as data URIs.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "analysis/resonance.h"
#include "base/breathing.h"

namespace cvn {

struct TfrInput {
  std::vector<double> samples;  // ECG at kSampleRate
  /// A beat session's intervals, seconds, as the strap sent them; the maps
  /// come from these when there is no ECG.
  std::vector<double> rr_seconds;
  BreathingSettings breathing;   // the cycle length, and who for the reference level
  std::optional<RfProtocol> rf;  // an assessment: its breaths are the maps' cycles
};

struct TfrImages {
  std::string error;  // empty on success
  std::string tfr3_uri, tfr10_uri;
};

/// Pure: the two heat-maps as "data:image/png;base64," URIs, or the message
/// the user sees when the recording cannot be analysed.
TfrImages compute_tfr_images(const TfrInput& in);

}  // namespace cvn
