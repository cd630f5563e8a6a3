// Zero-phase band-pass filtering of the 130 Hz ECG.
#pragma once
#include <array>
#include <cstddef>
#include <span>
#include <vector>

namespace cvn {

/// One second-order section; a0 is 1 and not stored.
struct Biquad {
  double b0, b1, b2, a1, a2;
};

/// 4th-order Butterworth band-pass, -3 dB at 5 Hz and 49 Hz for 130 Hz
/// sampling: passes the QRS complex, rejects baseline wander and the
/// slow P and T waves. Valid for 130 Hz only.
inline constexpr std::array<Biquad, 4> kEcgBandPass = {{
    {0.2466890928716257, 0.0, -0.2466890928716257, 0.8000796958750661, 0.19522466797987365},
    {1.0, 0.0, -1.0, 1.1379793484327494, 0.6038492898384823},
    {1.0, 0.0, -1.0, -1.5616015099547143, 0.6175958376867865},
    {1.0, 0.0, -1.0, -1.7886122465967813, 0.843498386699437},
}};

/// Odd padding of the ECG band-pass at each end: three times the 9 taps of
/// the combined 8th-order filter, long enough for its start-up transient.
inline constexpr int kEcgPadLength = 6 * static_cast<int>(kEcgBandPass.size()) + 3;

/// One pass through a cascade that goes on as samples arrive: the transposed
/// direct form II state, two numbers per section.
struct SosState {
  std::vector<double> z0, z1;
};

/// The state a pass of sos_filtfilt starts in when its first input is `x0`:
/// every section in its steady state for a step of that height.
SosState sos_pass_start(std::span<const Biquad> sections, double x0);

/// Runs `count` samples from `data` (stepping by `stride`, +1 or -1) through
/// the cascade in place, carrying `state` on. The arithmetic is sos_filtfilt's,
/// so a pass split into pieces gives the same numbers as one run.
void sos_pass_run(std::span<const Biquad> sections, SosState& state, double* data,
                  std::ptrdiff_t count, std::ptrdiff_t stride);

/// Forward-backward (zero-phase) filtering through `sections`. The signal is
/// extended at both ends by odd reflection of `pad_length` samples (at most
/// size - 1), and each pass starts every section in its steady state for a
/// step of the height of that pass's first input sample. The result has the
/// input's length. Non-finite inputs propagate; see ecg_bandpass for a
/// guarded entry.
std::vector<double> sos_filtfilt(const std::vector<double>& signal,
                                 std::span<const Biquad> sections, int pad_length);

/// The ECG band-pass (kEcgBandPass, 27 samples of odd padding). Non-finite
/// samples (sensor dropouts, NaN from a bad import) are first replaced by
/// linear interpolation between their finite neighbours (ends take the
/// nearest finite value, a signal without any finite sample becomes zeros),
/// so a gap disturbs only its neighbourhood instead of the whole recording.
std::vector<double> ecg_bandpass(const std::vector<double>& ecg);

}  // namespace cvn
