#include "engine/history.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>

#include "base/breathing.h"
#include "base/files.h"
#include "base/recording.h"
#include "engine/live_analysis.h"
#include "engine/sidecar.h"

namespace fs = std::filesystem;

namespace cvn {

namespace {

bool is_recording_name(const std::string& name) {
  if (name.ends_with("_markers.csv") || name.ends_with("_CVN_logpower.csv")) return false;
  return name.size() > 4 && (name.ends_with(".csv") || name.ends_with(".txt"));
}

std::string summary_path(const std::string& recording) {
  std::string side = sidecar_path(recording);
  return side.substr(0, side.size() - kSidecarEnding.size()) + std::string(kSummaryEnding);
}

std::optional<SummaryKey> key_of(const std::string& path) {
  std::error_code ec;
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec) return std::nullopt;
  const fs::file_time_type time = fs::last_write_time(path, ec);
  if (ec) return std::nullopt;
  return SummaryKey{size, static_cast<std::int64_t>(time.time_since_epoch().count())};
}

// The file's own time, for a recording whose name carries none.
std::string file_date(const std::string& path) {
  std::error_code ec;
  const fs::file_time_type t = fs::last_write_time(path, ec);
  if (ec) return {};
  const auto since = std::chrono::system_clock::now() + (t - fs::file_time_type::clock::now());
  const std::int64_t unix =
      std::chrono::duration_cast<std::chrono::seconds>(since.time_since_epoch()).count();
  return stamp_date(file_time_stamp(unix));
}

// Whose the recording is and how it was breathed: the sidecar first, the
// file name for what the sidecar does not say.
struct Reading {
  SessionSidecar sidecar;
  RecordingName from_name;
};

Reading reading_of(const std::string& path, const std::string& file) {
  Reading r;
  if (std::optional<std::string> text = read_file(sidecar_path(path)))
    r.sidecar = read_sidecar(*text);
  r.from_name = parse_recording_name(file);
  return r;
}

RecordingSummary compute(const std::string& path) {
  const std::string file = fs::path(path).filename().string();
  std::optional<std::string> text = read_file(path);
  if (!text) {
    RecordingSummary s;
    s.error = "Could not read the file.";
    return s;
  }
  const bool beats = file.ends_with(kBeatsEnding);
  // Analysed as a beat session analyses them, so both agree.
  const std::vector<double> rr = beats ? read_beats(*text).rr_seconds : std::vector<double>{};
  const std::vector<double> ecg = beats ? std::vector<double>{} : read_recording(*text);
  text.reset();
  const Reading r = reading_of(path, file);
  // The rhythm as recorded, else the setup screen's default.
  BreathingSettings breathing;
  if (r.sidecar.person && r.sidecar.person->indur > 0) {
    breathing.indur = r.sidecar.person->indur;
    breathing.outdur = r.sidecar.person->outdur;
  } else if (r.from_name.indur > 0) {
    breathing.indur = r.from_name.indur;
    breathing.outdur = r.from_name.outdur;
  }
  RecordingSummary s = beats ? summarize_beats(rr, breathing.cycle_seconds(), r.sidecar.rf)
                             : summarize_recording(ecg, breathing.cycle_seconds(), r.sidecar.rf);
  if (s.error.empty() && !r.sidecar.protocol_error.empty())
    s.error = "The saved breathing protocol could not be read (" + r.sidecar.protocol_error + ").";
  return s;
}

}  // namespace

History::History(std::string recordings_folder, int threads)
    : folder_(std::move(recordings_folder)), max_workers_(std::max(1, threads)) {}

History::~History() {
  threads_.join_all();
}

std::vector<HistoryFile> History::list_folder() {
  std::vector<HistoryFile> out;
  std::error_code ec;
  for (fs::directory_iterator it(folder_, ec), end; !ec && it != end; it.increment(ec)) {
    std::string file = it->path().filename().string();
    if (!is_recording_name(file) || !it->is_regular_file(ec)) continue;
    const std::string path = it->path().string();
    const Reading r = reading_of(path, file);
    HistoryFile f;
    const RecordingName& n = r.from_name;
    f.name = n.name;
    f.sex = n.sex;
    f.age = n.age;
    f.indur = n.indur;
    f.outdur = n.outdur;
    if (const std::optional<SessionPerson>& p = r.sidecar.person) {
      f.name = p->name;
      if (!p->sex.empty()) f.sex = p->sex;
      if (p->age >= 0) f.age = p->age;
      if (p->indur > 0) f.indur = p->indur, f.outdur = p->outdur;
    }
    f.date = r.from_name.date.empty() ? file_date(path) : r.from_name.date;
    f.file = std::move(file);
    out.push_back(std::move(f));
  }
  return out;
}

std::vector<PersonCount> History::people() {
  std::vector<PersonCount> out;
  for (const PersonFiles& p : group_by_person(list_folder()))
    out.push_back({p.name, static_cast<int>(p.files.size())});
  return out;
}

std::optional<PersonHistory> History::person(const std::string& name) {
  const std::string key = person_key(name);
  std::vector<PersonFiles> people = group_by_person(list_folder());
  auto it = std::find_if(people.begin(), people.end(),
                         [&](const PersonFiles& p) { return person_key(p.name) == key; });
  if (it == people.end()) return std::nullopt;
  PersonHistory out;
  out.name = it->name;
  std::vector<Task> missing;
  for (const HistoryFile& f : it->files) {
    HistoryRow& row = out.rows.emplace_back();
    row.file = f;
    const std::string path = folder_ + "/" + f.file;
    const std::optional<SummaryKey> now = key_of(path);
    if (!now) {  // gone or unreadable since the listing
      row.summary.error = "Could not read the file.";
      continue;
    }
    {
      std::lock_guard<std::mutex> g(mu_);
      if (auto k = known_.find(path); k != known_.end() && k->second.key == *now) {
        row.summary = k->second.summary;
        continue;
      }
    }
    // Read outside the lock: the workers keep storing meanwhile.
    if (std::optional<std::string> text = read_file(summary_path(path))) {
      if (std::optional<RecordingSummary> s = read_summary(*text, *now)) {
        row.summary = *s;
        std::lock_guard<std::mutex> g(mu_);
        known_[path] = {*now, std::move(*s)};
        continue;
      }
    }
    row.pending = true;
    missing.push_back({path, *now});
  }
  std::lock_guard<std::mutex> g(mu_);
  // This person's newest first, ahead of whatever waits from before.
  for (auto m = missing.rbegin(); m != missing.rend(); ++m) {
    auto q = queued_.find(m->path);
    if (q != queued_.end() && q->second == m->key) continue;
    queued_[m->path] = m->key;
    queue_.push_front(*m);
  }
  while (workers_ < max_workers_ && static_cast<std::size_t>(workers_) < queue_.size()) {
    if (!threads_.spawn([this](std::stop_token stop) { work(stop); })) break;
    ++workers_;
  }
  return out;
}

void History::work(std::stop_token stop) {
  for (;;) {
    Task task;
    {
      std::lock_guard<std::mutex> g(mu_);
      if (queue_.empty() || stop.stop_requested()) {
        --workers_;
        return;
      }
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    RecordingSummary s;
    try {
      s = compute(task.path);
    } catch (const std::exception& e) {
      s.error = std::string("Could not analyse it: ") + e.what();  // out of memory
    }
    // A cache that cannot be written costs a recomputation next time, no more.
    (void)write_file_atomic(summary_path(task.path), summary_text(s, task.key));
    std::lock_guard<std::mutex> g(mu_);
    known_[task.path] = {task.key, std::move(s)};
    if (auto q = queued_.find(task.path); q != queued_.end() && q->second == task.key)
      queued_.erase(q);
  }
}

}  // namespace cvn
