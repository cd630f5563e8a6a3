// What a recording's samples do not say about its session, kept in a small
// text file beside it: "<stem>.session" (docs/recording.md). Neither ".csv"
// nor ".txt", so no listing takes it for a recording. A recording without
// one was a single-rhythm session.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "analysis/resonance.h"

namespace cvn {

inline constexpr std::string_view kSidecarEnding = ".session";

/// The sidecar of the recording at `recording_path`: its ending (".csv",
/// ".txt") replaced by kSidecarEnding.
std::string sidecar_path(const std::string& recording_path);

struct SessionSidecar {
  std::optional<RfProtocol> rf;  // absent: a single rhythm
};

/// "# Corvane Live session 1", then one "key=value" line each.
std::string sidecar_text(const SessionSidecar& sidecar);

/// Reads sidecar_text's lines; unknown keys are skipped (a later version may
/// add some). A protocol that cannot be read gives nullopt and, in `error`,
/// a sentence for the user.
std::optional<SessionSidecar> read_sidecar(std::string_view text, std::string* error);

}  // namespace cvn
