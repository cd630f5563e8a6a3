#include "engine/jobs.h"

#include <exception>

#include "engine/tfr_images.h"

namespace cvn {

Jobs::Jobs(SessionState& session, std::string exports_folder, Clock& clock)
    : session_(session), exports_(std::move(exports_folder)), clock_(clock) {}

Jobs::~Jobs() {
  threads_.join_all();
}

void Jobs::new_session(std::uint64_t session) {
  std::lock_guard<std::mutex> g(mu_);
  // Two starts at once may report in either order; the newer one counts.
  if (session <= session_id_) return;
  session_id_ = session;
  tfr_ = {};
  export_ = {};
}

void Jobs::start_tfr() {
  SessionCopy c = session_.copy();
  TfrInput in{std::move(c.input.samples), std::move(c.input.rr_seconds), c.input.breathing,
              c.input.rf};
  {
    std::lock_guard<std::mutex> g(mu_);
    if (c.session != session_id_) return;  // a new session is being set up
    tfr_.state = JobState::kRunning;
    tfr_.message.clear();
  }
  const bool started =
      threads_.spawn([this, in = std::move(in), session = c.session](std::stop_token) {
        TfrImages r;
        try {
          r = compute_tfr_images(in);
        } catch (const std::exception& e) {
          r.error = e.what();  // out of memory: the one thing that throws
        }
        std::lock_guard<std::mutex> g(mu_);
        // A new session started meanwhile: these images belong to no one.
        if (session != session_id_) return;
        if (!r.error.empty()) {
          tfr_.state = JobState::kError;
          tfr_.message = r.error;
          return;
        }
        tfr_.tfr3_uri = std::move(r.tfr3_uri);
        tfr_.tfr10_uri = std::move(r.tfr10_uri);
        tfr_.state = JobState::kDone;
      });
  if (!started) {
    std::lock_guard<std::mutex> g(mu_);
    tfr_.state = JobState::kError;
    tfr_.message = "No thread to compute on; try again.";
  }
}

TfrResult Jobs::tfr() {
  std::lock_guard<std::mutex> g(mu_);
  return tfr_;
}

void Jobs::start_export() {
  SessionCopy c = session_.copy();
  {
    std::lock_guard<std::mutex> g(mu_);
    if (c.session != session_id_) return;
    export_ = {};
    export_.state = JobState::kRunning;
    c.input.logo = logo_;
  }
  const bool started =
      threads_.spawn([this, in = std::move(c.input), session = c.session](std::stop_token) {
        ExportResult r;
        try {
          r = write_export(in, exports_, clock_);
        } catch (const std::exception& e) {
          r.error = std::string("Export failed: ") + e.what();
        }
        std::lock_guard<std::mutex> g(mu_);
        // The files are on disk either way; the status belongs to its session.
        if (session != session_id_) return;
        export_.state = r.ok() ? JobState::kDone : JobState::kError;
        export_.result = std::move(r);
      });
  if (!started) {
    std::lock_guard<std::mutex> g(mu_);
    export_.state = JobState::kError;
    export_.result.error = "Export failed: no thread to write on; try again.";
  }
}

std::pair<JobState, JobState> Jobs::states() {
  std::lock_guard<std::mutex> g(mu_);
  return {tfr_.state, export_.state};
}

BatchState Jobs::batch_progress() {
  std::lock_guard<std::mutex> g(mu_);
  return batch_;
}

ExportStatus Jobs::export_status() {
  std::lock_guard<std::mutex> g(mu_);
  return export_;
}

bool Jobs::start_batch(const std::string& folder, bool single, const std::string& report_name,
                       const std::optional<SessionSettings>& settings) {
  BatchRequest request;
  request.folder = folder;
  request.single = single;
  request.report_name = report_name;
  return start_batch(std::move(request), settings);
}

bool Jobs::start_batch(BatchRequest request, const std::optional<SessionSettings>& settings) {
  bool expected = false;
  if (!batch_running_.compare_exchange_strong(expected, true)) return false;
  if (settings) session_.apply(*settings);
  const SessionCopy c = session_.copy();
  request.settings.breathing = c.input.breathing;
  request.settings.sample_rate = c.import_rate;
  request.settings.per_person = request.single && settings.has_value();
  ReportLogo logo;
  {
    std::lock_guard<std::mutex> g(mu_);
    logo = logo_;
    batch_ = {};
    batch_.state = JobState::kRunning;
    batch_.message = "Scanning…";
  }
  const bool started = threads_.spawn(
      [this, request = std::move(request), logo = std::move(logo)](std::stop_token stop) {
        BatchOutcome out;
        try {
          out = run_batch(
              request, exports_, logo,
              [this](int done, int total, const std::string& message) {
                std::lock_guard<std::mutex> g(mu_);
                batch_.done = done;
                batch_.total = total;
                batch_.message = message;
              },
              2, BatchIo{clock_, Disk::system(), stop});
        } catch (const std::exception& e) {
          out.error = e.what();
        }
        std::lock_guard<std::mutex> g(mu_);
        batch_.state = out.error.empty() ? JobState::kDone : JobState::kError;
        batch_.message = out.error.empty() ? out.message : "Batch failed: " + out.error;
        batch_.outcome = std::move(out);
        batch_running_ = false;
      });
  if (!started) {
    std::lock_guard<std::mutex> g(mu_);
    batch_.state = JobState::kError;
    batch_.message = "Batch failed: no thread to run it on; try again.";
    batch_running_ = false;
  }
  return true;
}

BatchStatus Jobs::batch_status() {
  std::lock_guard<std::mutex> g(mu_);
  return batch_;
}

void Jobs::set_report_logo(ReportLogo logo) {
  std::lock_guard<std::mutex> g(mu_);
  logo_ = std::move(logo);
}

}  // namespace cvn
