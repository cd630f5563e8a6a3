// How a person breathes in a session, and who they are: what the setup
// screen sends, what a recording's name records and what every analysis is
// run with. The defaults are the ones the setup screen starts from.
#pragma once
#include <string>

namespace cvn {

struct BreathingSettings {
  double indur = 5.0;     // seconds breathing in, see breathing_period
  double outdur = 11.0;   // seconds breathing out
  std::string sex = "M";  // "M" or "F": selects the reference level of the maps
  int age = 40;

  /// One breath, in and out, to two decimals.
  double cycle_seconds() const;
};

/// A breathing period as sessions keep it: at least kMinBreathingPeriod,
/// rounded to two decimals (halves away from zero).
double breathing_period(double seconds);

}  // namespace cvn
