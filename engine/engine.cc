#include "engine/engine.h"

#include <cmath>
#include <filesystem>
#include <tuple>

#include "analysis/pipeline.h"
#include "base/files.h"
#include "base/log.h"
#include "engine/import.h"
#include "engine/sidecar.h"

namespace cvn {

Engine::Engine(std::string data_folder, std::unique_ptr<BleManager> ble, Clock& clock)
    : data_folder_(std::move(data_folder)),
      ble_(std::move(ble)),
      clock_(clock),
      session_(clock),
      acquisition_(session_, ble_.get(), clock, data_folder_ + "/recordings"),
      jobs_(session_, data_folder_ + "/exports", clock),
      history_(data_folder_ + "/recordings") {}

Engine::~Engine() = default;

Status Engine::start_replay(const std::string& path, const SessionSettings& requested,
                            const ReplayOptions& options, std::string* note) {
  std::optional<std::string> text = read_file(path);
  if (!text) return Status::error("file not found");
  const std::size_t slash = path.rfind('/');
  const std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
  std::vector<double> samples;
  std::optional<BeatSource> beats;
  if (file.ends_with(kBeatsEnding)) {
    BeatText b = read_beats(*text);
    if (b.skipped_lines > 0)
      logLine("Replay of " + file + ": " + std::to_string(b.skipped_lines) +
              " lines that are not beat intervals were left out.");
    if (b.rr_seconds.size() < kMinReplayBeats)
      return Status::error("This beat recording holds " + std::to_string(b.rr_seconds.size()) +
                           " beat intervals; at least " + std::to_string(kMinReplayBeats) +
                           " are needed to replay it.");
    beats.emplace().rr_seconds = std::move(b.rr_seconds);
  } else {
    samples = read_recording(*text);
  }
  text.reset();
  SessionSettings settings = requested;
  if (std::optional<std::string> side = read_file(sidecar_path(path))) {
    const SessionSidecar sidecar = read_sidecar(*side);
    if (beats) beats->device = sidecar.device;
    if (!settings.protocol_named) {
      settings.rf = sidecar.rf;
      if (note && !sidecar.protocol_error.empty())
        *note = "The saved breathing protocol could not be read (" + sidecar.protocol_error +
                "); this replay runs as a single rhythm.";
    }
  }
  std::optional<std::string> marker_text = read_file(markers_path(path));
  start_replay_of(std::move(samples),
                  marker_text ? read_markers(*marker_text) : std::vector<Marker>{}, file, settings,
                  options, std::move(beats));
  return {};
}

void Engine::start_replay_of(std::vector<double> samples, std::vector<Marker> markers,
                             const std::string& file, const SessionSettings& settings,
                             const ReplayOptions& options, std::optional<BeatSource> beats) {
  acquisition_.start_replay(std::move(samples), std::move(markers), file, settings, options,
                            std::move(beats));
  jobs_.new_session(session_.session());
}

void Engine::start_live(const std::string& address, const std::optional<std::string>& device,
                        const SessionSettings& settings) {
  acquisition_.start_live(address, device, settings);
  jobs_.new_session(session_.session());
}

ImportResult Engine::import_recording(const std::string& text, const std::string& file_name,
                                      const SessionSettings& settings,
                                      const ReplayOptions& options) {
  ImportResult r;
  if (text.empty()) {
    r.status = Status::error("No file received.");
    return r;
  }
  const std::string name = import_name(file_name);
  if (looks_like_kubios(text)) {
    std::vector<double> rr = read_kubios_rr(text);
    r.beats = rr.size();
    if (r.beats < kMinKubiosBeats) {
      r.status =
          Status::error("This looks like a Kubios file but no RR-interval column was found.");
      return r;
    }
    // The export goes through a batch of its own, handed the intervals
    // already read.
    BatchRequest request;
    request.single = true;
    request.report_name = name;
    request.files.push_back({name + ".csv", name + ".csv", std::nullopt, std::move(rr)});
    if (!jobs_.start_batch(std::move(request), settings)) {
      r.status = Status::error("A batch is already running.");
      return r;
    }
    r.kubios = true;
    return r;
  }
  const double rate = session_.import_rate(settings);
  std::vector<double> samples = resample(read_recording(text), rate);
  if (samples.size() < kMinImportSamples) {
    r.status = Status::error(
        "That file did not look like a raw ECG (.txt/.csv with one sample per line) or a Kubios "
        "export.");
    return r;
  }
  r.file = "imported_" + name + "_" + file_time_stamp(clock_.wall()) + ".csv";
  const std::string path = data_folder_ + "/recordings/" + r.file;
  if (const Status s = write_file_atomic(path, format_recording(samples)); !s.ok()) {
    logLine(s.message());
    r.status =
        Status::error("Could not save the imported recording in " + data_folder_ + "/recordings.");
    r.file.clear();
    return r;
  }
  ReplayOptions o = options;
  o.label = "Imported — " + name;
  // What plays is what the file holds: its whole numbers.
  for (double& v : samples) v = std::round(v);
  start_replay_of(std::move(samples), {}, r.file, settings, o);
  // Who it is, as the session now names them (a request without a name
  // keeps the previous one), so that the person's history finds it. The
  // replay has played nothing yet, so the copy is small; the recording
  // plays whether or not this lands.
  if (const Status s = write_file_atomic(sidecar_path(path),
                                         sidecar_text(session_sidecar(session_.copy().input)));
      !s.ok())
    logLine(s.message());
  return r;
}

std::optional<RfResult> Engine::rf_result() {
  const SessionCopy c = session_.copy();
  if (!c.input.rf) return std::nullopt;
  const PipelineOptions o{.cycles = false, .hrv = false};
  const double cycle = c.input.breathing.cycle_seconds();
  const RecordingAnalysis a =
      c.strap_beats
          ? analyze_recording(RrSeconds{c.input.rr_seconds, c.input.rr_from_strap}, cycle, o)
          : analyze_recording(EcgSamples{c.input.samples}, cycle, o);
  return score_rf(*c.input.rf, a.rr, a.hr, a.duration_seconds);
}

Snapshot Engine::snapshot() {
  Snapshot s = session_.snapshot();
  std::tie(s.tfr, s.export_job) = jobs_.states();
  s.batch = jobs_.batch_progress();
  return s;
}

Status Engine::reset_upload_folder() {
  std::error_code ec;
  std::filesystem::remove_all(upload_folder(), ec);
  if (!ec) std::filesystem::create_directories(upload_folder(), ec);
  if (!ec) return {};
  return Status::error("Could not prepare the upload folder " + upload_folder() + ": " +
                       ec.message());
}

}  // namespace cvn
