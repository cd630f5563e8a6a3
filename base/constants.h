// Numbers the whole program agrees on.
#pragma once

namespace cvn {

/// The ECG rate of the Polar H10 stream and of every recording file: sample
/// counts convert to seconds by dividing by this, whatever the source.
inline constexpr double kSampleRate = 130.0;
inline constexpr int kSampleRateInt = 130;

/// Shown in the console banner and the status snapshot.
inline constexpr const char* kAppVersion = CVN_VERSION;

}  // namespace cvn
