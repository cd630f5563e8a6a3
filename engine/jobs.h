// The session's background jobs: the TFR heat-maps, the export and the
// batch. Each runs on a thread of its own while the session goes on; every
// thread is joined (at the latest when the jobs end), and a batch is asked
// to stop between recordings when the program shuts down. A TFR or export
// result that comes back after a new session began is dropped: it belongs
// to no one.
#pragma once
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "base/clock.h"
#include "base/thread_set.h"
#include "engine/batch.h"
#include "engine/session.h"
#include "reports/export.h"
#include "reports/report_logo.h"

namespace cvn {

struct ExportStatus {
  JobState state = JobState::kIdle;
  ExportResult result;  // meaningful once the job has ended
};

struct BatchStatus : BatchState {
  BatchOutcome outcome;  // meaningful once the batch has ended
};

struct TfrResult {
  JobState state = JobState::kIdle;
  std::string message;              // the error, when there is one
  std::string tfr3_uri, tfr10_uri;  // "data:image/png;base64,...", empty when none
};

class Jobs {
 public:
  /// `session` and `clock` must outlive the jobs.
  Jobs(SessionState& session, std::string exports_folder, Clock& clock);
  ~Jobs();  // asks a running batch to stop and joins every job
  Jobs(const Jobs&) = delete;
  Jobs& operator=(const Jobs&) = delete;

  /// A new session began: the TFR and export states go back to idle, and
  /// results of jobs started before are dropped.
  void new_session(std::uint64_t session);

  /// Both heat-maps of the session so far.
  void start_tfr();
  TfrResult tfr();

  /// The session so far into a new folder under the exports folder.
  void start_export();
  ExportStatus export_status();

  /// A batch over `folder`, unless one runs (then false). `settings`, when
  /// given, become the session's and are set for this person: single mode
  /// with its own age and sex.
  bool start_batch(const std::string& folder, bool single, const std::string& report_name,
                   const std::optional<SessionSettings>& settings);
  /// The same for recordings handed over in memory (an upload); the
  /// request's settings are the session's.
  bool start_batch(BatchRequest request, const std::optional<SessionSettings>& settings);
  bool batch_running() const { return batch_running_; }
  BatchStatus batch_status();

  /// The TFR and export states alone, for the snapshot taken 20 times a
  /// second (tfr() copies the pictures).
  std::pair<JobState, JobState> states();
  /// The batch's progress without its outcome, for the same snapshot.
  BatchState batch_progress();

  /// The logo the PDF reports carry.
  void set_report_logo(ReportLogo logo);

 private:
  SessionState& session_;
  const std::string exports_;
  Clock& clock_;

  std::mutex mu_;
  std::uint64_t session_id_ = 0;  // the session results are for
  TfrResult tfr_;
  ExportStatus export_;
  BatchStatus batch_;
  ReportLogo logo_;
  std::atomic<bool> batch_running_{false};
  // Last member: destroyed (stopped and joined) first, while everything the
  // jobs touch still exists.
  ThreadSet threads_;
};

}  // namespace cvn
