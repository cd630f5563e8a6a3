// The status snapshot as the page reads it, from "/status" and "/stream".
// Field order, rounding and null rules are in docs/api.md.
#pragma once
#include <string>

#include "engine/engine.h"

namespace cvn {

/// The snapshot's JSON object, one line, no blanks.
std::string snapshot_json(const Snapshot& s);

/// "idle", "live", "replay".
const char* mode_text(Mode m);

/// "idle", `running` (each job has its own word: "computing", "exporting",
/// "running"), "done", "error".
const char* job_text(JobState s, const char* running);

}  // namespace cvn
