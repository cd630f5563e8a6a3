// The status snapshot as the page reads it, from "/status" and "/stream".
// Field order, rounding and null rules are in docs/api.md.
#pragma once
#include <string>

#include "engine/engine.h"

namespace cvn {

/// The snapshot's JSON object, one line, no blanks.
std::string snapshot_json(const Snapshot& s);

/// "\"rates\":[…],\"step_s\":…,\"infrac\":…", the members of a protocol
/// object without its braces.
std::string rf_protocol_json(const RfProtocol& p);

/// An assessment's scores: {"protocol":{…},"steps":[{"bpm":…,"start_s":…,
/// "end_s":…,"breaths":…,"reached":…,"peak_trough_hr":…,"lf_power":…,
/// "lf_peak":…,"phase_deg":…,"amplitude_bpm":…,"cvn":…},…],
/// "recommended_bpm":…}, null for what could not be computed.
std::string rf_result_json(const RfResult& r);

/// "idle", "live", "replay".
const char* mode_text(Mode m);

/// "idle", `running` (each job has its own word: "computing", "exporting",
/// "running"), "done", "error".
const char* job_text(JobState s, const char* running);

}  // namespace cvn
