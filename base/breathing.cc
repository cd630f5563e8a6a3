#include "base/breathing.h"

#include <algorithm>

#include "base/constants.h"
#include "base/numbers.h"

namespace cvn {

double BreathingSettings::cycle_seconds() const {
  return round_to(outdur + indur, 2);
}

double breathing_period(double seconds) {
  return round_to(std::max(seconds, kMinBreathingPeriod), 2);
}

}  // namespace cvn
