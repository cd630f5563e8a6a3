// EDF+ ("EDF+C", continuous) file of one ECG recording with its markers as
// annotations. The layout we write is described in docs/edf.md.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "base/constants.h"

namespace cvn {

/// Seconds of signal in one data record.
inline constexpr int kEdfRecordSeconds = 1;
/// Annotation "samples" (2 bytes each) per record when the markers of every
/// second fit in them; a record with more marker text widens the signal.
inline constexpr int kEdfAnnotationSamples = 60;
/// The ECG is stored one microvolt per digital step and clipped
/// symmetrically to this.
inline constexpr int kEdfDigitalLimit = 32767;

struct EdfAnnotation {
  double seconds = 0;  // onset from the start of the recording
  std::string label;   // UTF-8; written as its nearest ASCII
};

struct EdfRecording {
  std::vector<double> samples;       // microvolts
  int sample_rate = kSampleRateInt;  // samples per second
  std::string name;                  // patient name, may be empty
  std::vector<EdfAnnotation> annotations;
  std::int64_t start_time = 0;  // unix seconds, shown in local time (the writer reads no clock)
};

/// The whole file. Empty when the sample rate is below 1 or there are no
/// samples (no meaningful EDF exists then). Every annotation is written once,
/// in the first record ending after its onset (onsets before 0 go to the
/// first record, onsets past the end to the last).
std::vector<std::uint8_t> edf_file(const EdfRecording& recording);

}  // namespace cvn
