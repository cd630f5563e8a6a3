#include "engine/session.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/constants.h"
#include "base/numbers.h"
#include "engine/journal.h"

namespace cvn {

namespace {

// The live scope trails arrival by 0.4 s so bursts of notifications scroll
// smoothly.
constexpr double kScopeDelaySamples = 52;

bool valid_import_rate(const std::optional<double>& rate) {
  return rate && *rate >= kMinImportRate && *rate <= kMaxImportRate;
}

const auto kNoSeries = std::make_shared<const std::vector<SeriesPoint>>();

}  // namespace

SessionState::SessionState(Clock& clock)
    : clock_(clock),
      import_rate_(kSampleRate),
      hr_(std::nan("")),
      cvn_(std::nan("")),
      hr_series_(kNoSeries),
      cvn_series_(kNoSeries) {}

void SessionState::apply_locked(const SessionSettings& s) {
  if (s.name) name_id_ = *s.name;
  breathing_.indur = breathing_period(s.indur);
  breathing_.outdur = breathing_period(s.outdur);
  breathing_.sex = s.sex;
  breathing_.age = s.age;
  if (valid_import_rate(s.import_rate)) import_rate_ = *s.import_rate;
  rf_ = s.rf;
  schedule_ = rf_ ? rf_schedule(*rf_) : std::vector<RfStep>{};
}

void SessionState::apply(const SessionSettings& s) {
  std::lock_guard<std::mutex> g(mu_);
  apply_locked(s);
}

std::uint64_t SessionState::begin_locked() {
  hr_ = std::nan("");
  cvn_ = std::nan("");
  rr_count_ = 0;
  hr_series_ = kNoSeries;
  cvn_series_ = kNoSeries;
  hrv_.reset();
  markers_.clear();
  session_start_ = clock_.wall();
  saved_as_.clear();
  running_ = true;
  return ++session_;
}

std::uint64_t SessionState::begin_replay(std::vector<double> samples, std::vector<Marker> markers,
                                         std::string label, const SessionSettings& settings,
                                         double speed, std::optional<BeatSource> beats) {
  std::lock_guard<std::mutex> g(mu_);
  apply_locked(settings);
  mode_ = Mode::kReplay;
  beats_ = beats.has_value();
  replay_beat_ends_.clear();
  if (beats) {
    replay_samples_.clear();
    replay_beats_ = std::move(beats->rr_seconds);
    beat_device_ = std::move(beats->device);
    double end = 0;
    for (double rr : replay_beats_) replay_beat_ends_.push_back(end += rr * kSampleRate);
    // Rounded up, so that the replay's end passes the last beat's end.
    replay_total_ = static_cast<std::int32_t>(std::min<double>(std::ceil(end), INT32_MAX));
  } else {
    replay_samples_ = std::move(samples);
    replay_beats_.clear();
    beat_device_.clear();
    replay_total_ = static_cast<std::int32_t>(replay_samples_.size());
  }
  replay_pos_ = 0;
  replay_speed_ = speed;
  replay_offset_ = 0.0;
  source_label_ = std::move(label);
  const std::uint64_t session = begin_locked();
  markers_ = std::move(markers);
  return session;
}

std::uint64_t SessionState::begin_live(std::string label, const SessionSettings& settings,
                                       std::string device) {
  std::lock_guard<std::mutex> g(mu_);
  apply_locked(settings);
  mode_ = Mode::kLive;
  beats_ = settings.beats;
  beat_device_ = settings.beats ? std::move(device) : std::string();
  live_beats_.clear();
  live_beats_time_ = 0;
  live_samples_.clear();
  live_start_ = 0.0;
  replay_offset_ = 0.0;
  bt_status_ = "Starting…";
  source_label_ = std::move(label);
  return begin_locked();
}

Mode SessionState::mode() {
  std::lock_guard<std::mutex> g(mu_);
  return mode_;
}

std::uint64_t SessionState::session() {
  std::lock_guard<std::mutex> g(mu_);
  return session_;
}

void SessionState::append_live(const std::vector<double>& batch) {
  std::lock_guard<std::mutex> g(mu_);
  if (live_samples_.empty() && !batch.empty()) live_start_ = clock_.now();
  live_samples_.insert(live_samples_.end(), batch.begin(), batch.end());
}

void SessionState::append_beats(const std::vector<double>& rr_seconds) {
  std::lock_guard<std::mutex> g(mu_);
  if (!beats_) return;
  for (double rr : rr_seconds) {
    // A strap's field cannot hold either; one would poison the session's
    // time. 0 and long intervals stay, for clean_rr to judge.
    if (!std::isfinite(rr) || rr < 0) continue;
    live_beats_.push_back(rr);
    live_beats_time_ += rr * kSampleRate;
  }
}

void SessionState::set_bt_status(std::string text) {
  std::lock_guard<std::mutex> g(mu_);
  bt_status_ = std::move(text);
}

void SessionState::restart_replay_clock() {
  std::lock_guard<std::mutex> g(mu_);
  clock_start_ = clock_.now();
}

bool SessionState::follow_replay_clock() {
  std::lock_guard<std::mutex> g(mu_);
  if (mode_ != Mode::kReplay) return false;
  const double pos =
      std::trunc(((clock_.now() - clock_start_) * replay_speed_ + replay_offset_) * kSampleRate);
  replay_pos_ = static_cast<std::int32_t>(std::clamp<double>(pos, INT32_MIN, replay_total_));
  return replay_pos_ >= replay_total_;
}

void SessionState::seek(double frac) {
  std::lock_guard<std::mutex> g(mu_);
  if (mode_ != Mode::kReplay || replay_total_ <= 0) return;
  const double f = std::min(frac > 0 ? frac : 0.0, 1.0);
  replay_offset_ = replay_total_ / kSampleRate * f;
  clock_start_ = clock_.now();
  replay_pos_ = static_cast<std::int32_t>(
      std::min<double>(replay_total_, std::trunc(replay_offset_ * kSampleRate)));
}

std::int64_t SessionState::sample_count() const {
  // A negative replay speed is accepted as given and walks the position
  // below zero; nothing before the first sample counts.
  if (mode_ == Mode::kReplay) return std::max<std::int32_t>(replay_pos_, 0);
  if (mode_ == Mode::kLive && beats_)
    return static_cast<std::int64_t>(std::min<double>(live_beats_time_, INT32_MAX));
  if (mode_ == Mode::kLive) return static_cast<std::int64_t>(live_samples_.size());
  return 0;
}

std::vector<double> SessionState::beats_locked() const {
  if (!beats_) return {};
  if (mode_ == Mode::kLive) return live_beats_;
  if (mode_ != Mode::kReplay) return {};
  // Played: the beats whose end the replay's position has passed.
  const auto played = std::upper_bound(replay_beat_ends_.begin(), replay_beat_ends_.end(),
                                       static_cast<double>(sample_count()));
  return std::vector<double>(replay_beats_.begin(),
                             replay_beats_.begin() + (played - replay_beat_ends_.begin()));
}

std::vector<double> SessionState::samples_locked() const {
  if (beats_) return {};
  if (mode_ == Mode::kReplay)
    return std::vector<double>(replay_samples_.begin(), replay_samples_.begin() + sample_count());
  if (mode_ == Mode::kLive) return live_samples_;
  return {};
}

std::vector<double> SessionState::samples() {
  std::lock_guard<std::mutex> g(mu_);
  return samples_locked();
}

BreathingSettings SessionState::breathing_now(PacerPosition* where) const {
  if (schedule_.empty()) return breathing_;
  const double t = static_cast<double>(sample_count()) / kSampleRate;
  PacerPosition p = pacer_at(schedule_, std::min(t, rf_total_seconds(schedule_)));
  // The end itself, or past it: the last step's breathing stays.
  if (p.step < 0) {
    const RfStep& last = schedule_.back();
    p = {static_cast<int>(schedule_.size()) - 1, last.in_s, last.out_s, last.cycle_s, 0, 0};
  }
  if (where) *where = p;
  BreathingSettings b = breathing_;
  b.indur = p.in_s;
  b.outdur = p.out_s;
  return b;
}

AnalysisInput SessionState::analysis_input() {
  return analysis_input(session(), 0);
}

AnalysisInput SessionState::analysis_input(std::uint64_t session, std::size_t from) {
  std::lock_guard<std::mutex> g(mu_);
  PacerPosition p;
  const BreathingSettings b = breathing_now(&p);
  const auto count = static_cast<std::size_t>(sample_count());
  if (beats_) {
    AnalysisInput in{true, beats_locked(), count, {}, 0, b.cycle_seconds(), session_};
    if (!schedule_.empty()) in.cycle_seconds = p.cycle_s;
    return in;
  }
  if (session != session_ || from > count) from = 0;
  const std::vector<double>& all = mode_ == Mode::kReplay ? replay_samples_ : live_samples_;
  // An assessment's live score follows the step's breath, not a rounded sum.
  AnalysisInput in{false,   {}, count, {}, from, schedule_.empty() ? b.cycle_seconds() : p.cycle_s,
                   session_};
  if (mode_ == Mode::kReplay || mode_ == Mode::kLive)
    in.samples.assign(all.begin() + static_cast<std::ptrdiff_t>(from),
                      all.begin() + static_cast<std::ptrdiff_t>(count));
  return in;
}

BreathingGuide SessionState::guide() {
  std::lock_guard<std::mutex> g(mu_);
  if (!schedule_.empty()) return [schedule = schedule_](double t) { return pacer_at(schedule, t); };
  return [in = breathing_.indur, out = breathing_.outdur](double t) {
    const double cycle = in + out;
    const double into = std::fmod(std::max(t, 0.0), cycle);
    return PacerPosition{0, in, out, cycle, std::numeric_limits<double>::infinity(), into / cycle};
  };
}

bool SessionState::schedule_ended() {
  std::lock_guard<std::mutex> g(mu_);
  return !schedule_.empty() &&
         static_cast<double>(sample_count()) / kSampleRate >= rf_total_seconds(schedule_);
}

SessionCopy SessionState::copy() {
  SessionCopy c;
  copy_locked(c);
  // Cleaned outside the lock: the strap's callbacks wait on it.
  if (c.strap_beats) {
    c.input.rr_seconds = *c.strap_beats;
    c.input.rr_from_strap = true;
  }
  return c;
}

void SessionState::copy_locked(SessionCopy& c) {
  std::lock_guard<std::mutex> g(mu_);
  ExportInput& in = c.input;
  in.samples = samples_locked();
  if (beats_) {
    c.strap_beats = beats_locked();
    in.beat_device = beat_device_;
  }
  in.markers = markers_;
  // Without a name the exports are named after the recording, not its file.
  in.name = name_id_.empty() ? std::string(without_recording_extension(source_label_)) : name_id_;
  in.breathing = breathing_;
  in.rf = rf_;
  in.start_time = session_start_;
  c.import_rate = import_rate_;
  c.session = session_;
  c.finished_live = mode_ == Mode::kLive && !running_;
  c.saved_as = saved_as_;
}

double SessionState::import_rate(const SessionSettings& settings) {
  std::lock_guard<std::mutex> g(mu_);
  if (valid_import_rate(settings.import_rate)) import_rate_ = *settings.import_rate;
  return import_rate_;
}

bool SessionState::store_analysis(std::uint64_t session, LiveAnalysis a) {
  auto hr_series = std::make_shared<const std::vector<SeriesPoint>>(std::move(a.hr_series));
  auto cvn_series = std::make_shared<const std::vector<SeriesPoint>>(std::move(a.cvn_series));
  auto hrv = a.hrv ? std::make_shared<const HrvIndices>(*a.hrv) : nullptr;
  std::lock_guard<std::mutex> g(mu_);
  // A new session began meanwhile: these results belong to no one.
  if (session != session_) return false;
  hr_ = a.hr;
  cvn_ = a.cvn;
  rr_count_ = a.rr_count;
  hr_series_ = std::move(hr_series);
  cvn_series_ = std::move(cvn_series);
  if (hrv) hrv_ = std::move(hrv);  // a pass without it keeps the last
  return true;
}

bool SessionState::add_marker(int key) {
  std::lock_guard<std::mutex> g(mu_);
  if (!running_ || key < 1 || key > 9) return false;
  const auto sample = static_cast<std::int32_t>(sample_count());
  // A double press before the next sample arrives must not make two markers.
  if (!markers_.empty() && markers_.back().sample == sample) return false;
  markers_.push_back({sample, key});
  return true;
}

void SessionState::set_saved_as(std::uint64_t session, std::string file) {
  std::lock_guard<std::mutex> g(mu_);
  if (session == session_) saved_as_ = std::move(file);
}

void SessionState::collect_into(LiveJournal& journal) {
  std::lock_guard<std::mutex> g(mu_);
  journal.collect(session_, live_samples_, live_beats_, markers_);  // copies only
}

Snapshot SessionState::snapshot() {
  std::lock_guard<std::mutex> g(mu_);
  Snapshot s;
  s.mode = mode_;
  s.running = running_;
  s.name_id = name_id_;
  s.source_label = source_label_;
  s.bt_status = bt_status_;
  s.beats = beats_;
  s.samples = sample_count();
  s.replay_total = replay_total_;
  if (mode_ == Mode::kReplay) s.replay_speed = replay_speed_;
  s.hr = hr_;
  s.cvn = cvn_;
  s.rr_count = rr_count_;
  const bool replay = mode_ == Mode::kReplay;
  const bool live = mode_ == Mode::kLive;
  if ((replay || live) && !beats_) {
    const std::vector<double>& buf = replay ? replay_samples_ : live_samples_;
    std::int64_t end = s.samples;
    if (live && live_start_ != 0.0) {
      double e = std::trunc((clock_.now() - live_start_) * kSampleRate - kScopeDelaySamples);
      end = static_cast<std::int64_t>(std::clamp<double>(e, 0, static_cast<double>(buf.size())));
    }
    std::int64_t start = std::max<std::int64_t>(0, end - kScopeSamples);
    end = std::min<std::int64_t>(end, static_cast<std::int64_t>(buf.size()));
    if (end > start) s.scope.assign(buf.begin() + start, buf.begin() + end);
  }
  s.hr_series = hr_series_;
  s.cvn_series = cvn_series_;
  s.hrv = hrv_;
  PacerPosition p;
  const BreathingSettings b = breathing_now(&p);
  // To two decimals, as the setup screen writes periods: the page times an
  // assessment's pacer from its own copy of the schedule.
  s.indur = round_to(b.indur, 2);
  s.outdur = round_to(b.outdur, 2);
  s.cycle_seconds = round_to(schedule_.empty() ? b.cycle_seconds() : p.cycle_s, 2);
  s.sex = b.sex;
  s.age = b.age;
  if (rf_ && !schedule_.empty()) {
    const RfStep& step = schedule_[static_cast<std::size_t>(p.step)];
    s.rf = RfPosition{*rf_, p.step + 1, static_cast<int>(schedule_.size()), step.bpm, p.left_s};
  }
  s.saved_as = saved_as_;
  s.markers = markers_;
  return s;
}

}  // namespace cvn
