// What a recording's samples do not say about its session, kept in a small
// text file beside it: "<stem>.session" (docs/recording.md). Neither ".csv"
// nor ".txt", so no listing takes it for a recording. It names the person
// and, for a resonance assessment, the protocol; a recording without one
// was saved before sidecars named the person, as a single rhythm.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "analysis/resonance.h"
#include "reports/export.h"

namespace cvn {

inline constexpr std::string_view kSidecarEnding = ".session";

/// The sidecar of the recording at `recording_path`: its ending (".csv",
/// ".txt") replaced by kSidecarEnding.
std::string sidecar_path(const std::string& recording_path);

/// Who breathed, and at which rhythm. Empty texts and a negative age are
/// what the sidecar did not say (or said unreadably).
struct SessionPerson {
  std::string name;  // as entered, control bytes turned to blanks
  std::string sex;   // "M", "F" or ""
  int age = -1;
  double indur = 0, outdur = 0;  // s; 0: not known
};

struct SessionSidecar {
  std::optional<RfProtocol> rf;         // absent: a single rhythm
  std::optional<SessionPerson> person;  // absent: the sidecar names no one
  std::string protocol_error;           // set: the protocol could not be read, `rf` is absent
  /// The strap a beat recording came from; empty: not said (or an ECG).
  std::string device;
};

/// The sidecar a session writes beside its recording.
SessionSidecar session_sidecar(const ExportInput& session);

/// "# Corvane Live session 1", then one "key=value" line each.
std::string sidecar_text(const SessionSidecar& sidecar);

/// Reads sidecar_text's lines; unknown keys and lines without "=" are
/// skipped (a later version may add keys), so any text gives a sidecar.
/// A protocol that cannot be read leaves `rf` absent and says why, in a
/// sentence for the user, in `protocol_error`; the person is read anyway.
SessionSidecar read_sidecar(std::string_view text);

}  // namespace cvn
