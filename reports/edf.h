// EDF+ ("EDF+C", continuous) file of one recording's signal (the ECG, or the
// heart rate of a recording made of beats) with its markers as annotations.
// The layout we write is described in docs/edf.md.
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

/// What the one data signal is: its header fields and the linear map from
/// physical values to the stored 16-bit integers (physical_min reads as
/// digital_min, physical_max as digital_max; values beyond are clipped).
struct EdfSignal {
  std::string label, transducer, dimension, prefiltering;
  double physical_min = 0, physical_max = 0;
  int digital_min = 0, digital_max = 0;
};

/// The chest strap's ECG in microvolts, one microvolt per step.
EdfSignal edf_ecg_signal();
/// Heart rate in bpm, 0.01 bpm per step from 0 to 327.67 bpm, from the beat
/// intervals of a strap that sends no ECG.
EdfSignal edf_heart_rate_signal();

struct EdfAnnotation {
  double seconds = 0;  // onset from the start of the recording
  std::string label;   // UTF-8; written as its nearest ASCII
};

struct EdfRecording {
  EdfSignal signal = edf_ecg_signal();
  std::vector<double> samples;       // in the signal's unit; NaN is stored as 0
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
