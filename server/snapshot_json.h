// The status snapshot as the page reads it, from "/status" and "/stream".
// Field order, rounding and null rules are in docs/api.md.
#pragma once
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace cvn {

/// The snapshot's JSON object, one line, no blanks.
std::string snapshot_json(const Snapshot& s);

/// What one "/stream" connection has sent, so that its later events carry only
/// what changed (docs/api.md, "Event stream"). One per connection.
struct StreamCursor {
  bool started = false;
  Mode mode = Mode::kIdle;
  std::string name_id, source_label;
  // The series as last sent; the engine's series are immutable, so holding
  // them is both the copy to compare with and free while they are unchanged.
  std::shared_ptr<const std::vector<SeriesPoint>> hr_series, cvn_series;
};

/// The next event's JSON for the connection `c`: the full snapshot first and
/// after a new session (then with "reset":true ahead of it), otherwise the
/// snapshot with each series as {"from":i,"points":[…]}, its points from the
/// first one that differs from what `c` sent.
std::string stream_event_json(const Snapshot& s, StreamCursor* c);

/// The first index at which `a` and `b` differ (bit for bit), or the shorter
/// length when one is the other's beginning.
std::size_t first_difference(const std::vector<SeriesPoint>& a, const std::vector<SeriesPoint>& b);

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
