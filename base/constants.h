// Numbers the whole program agrees on.
#pragma once

namespace cvn {

/// The ECG rate of the Polar H10 stream and of every recording file: sample
/// counts convert to seconds by dividing by this, whatever the source.
inline constexpr double kSampleRate = 130.0;
inline constexpr int kSampleRateInt = 130;

/// Step of the regular heart-rate series, seconds (10 Hz): fine enough for
/// the fastest breathing the pacer offers, coarse enough to stay small.
inline constexpr double kHrGridStep = 0.1;

/// The live scope shows the last six seconds of ECG.
inline constexpr int kScopeSamples = 6 * kSampleRateInt;

/// Shortest breathing period a session takes, seconds; periods are kept to
/// two decimals (breathing_period).
inline constexpr double kMinBreathingPeriod = 0.05;

/// Rates an imported raw ECG may claim, Hz: below, no beat shape survives;
/// above, it is no ECG recorder we know of.
inline constexpr double kMinImportRate = 20.0;
inline constexpr double kMaxImportRate = 20000.0;

/// Shown in the console banner and the status snapshot.
inline constexpr const char* kAppVersion = CVN_VERSION;

}  // namespace cvn
