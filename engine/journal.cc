#include "engine/journal.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "base/files.h"
#include "engine/sidecar.h"

namespace cvn {

namespace {

// The first line; readers skip it like any line that is neither a sample
// nor a marker, so it only tells a person what the file is.
constexpr std::string_view kJournalHeader = "# Corvane Live journal 1\n";
// Marker lines start with this letter, which no sample line can hold.
constexpr char kMarkerTag = 'm';
// Lines of the session's sidecar, written once after the header.
constexpr char kSidecarTag = 's';
// A beat interval: the letter, then the interval as a beat recording writes
// it (milliseconds). The letter keeps it out of the samples.
constexpr char kBeatTag = 'r';

// The length of a beat list in samples at kSampleRate, summed in order as
// the session sums it, so that a marker's index compares exactly.
double beats_time(const std::vector<double>& beats) {
  double t = 0;
  for (double rr : beats) t += rr * kSampleRate;
  return t;
}

}  // namespace

std::string session_stem(std::string_view name, double indur, double outdur, const std::string& sex,
                         int age, std::int64_t unix_time) {
  return sanitize_file_name(name) + "_on" + short_number(indur) + "_off" + short_number(outdur) +
         "_" + sex + std::to_string(age) + "_" + file_time_stamp(unix_time);
}

JournalContents read_journal(std::string_view text) {
  std::size_t end = text.rfind('\n');
  text = end == std::string_view::npos ? std::string_view() : text.substr(0, end + 1);
  JournalContents out;
  // Marker lines hold a letter, so the recording reader skips them.
  out.samples = read_recording(text);
  std::string beat_text;
  std::vector<std::string> marker_lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t nl = std::min(text.find('\n', start), text.size());
    std::string line(text.substr(start, nl - start));
    start = nl + 1;
    if (!line.empty() && line[0] == kSidecarTag) {
      out.sidecar += line.substr(1) + "\n";
      continue;
    }
    if (!line.empty() && line[0] == kBeatTag) {
      beat_text += line.substr(1) + "\n";
      continue;
    }
    if (!line.empty() && line[0] == kMarkerTag) marker_lines.push_back(std::move(line));
  }
  out.beats = read_beats(beat_text).rr_seconds;
  // Markers count samples, or a beat session's time x 130.
  const double last = out.beats.empty() ? static_cast<double>(out.samples.size())
                                        : std::trunc(beats_time(out.beats));
  for (const std::string& line : marker_lines) {
    // long is 32 bits on Windows; an index past what a marker holds (a
    // beat journal of absurd intervals) is dropped, not wrapped.
    int key = 0;
    long long sample = 0;
    if (std::sscanf(line.c_str() + 1, "%d,%lld", &key, &sample) != 2) continue;
    if (key < 1 || key > 9 || sample < 0 || static_cast<double>(sample) > last ||
        sample > std::numeric_limits<std::int32_t>::max())
      continue;
    out.markers.push_back({static_cast<std::int32_t>(sample), key});
  }
  return out;
}

LiveJournal::~LiveJournal() {
  std::lock_guard<std::mutex> g(mu_);
  close_locked();
}

void LiveJournal::close_locked() {
  if (file_) std::fclose(file_);
  file_ = nullptr;
  samples_.clear();
  beats_.clear();
  markers_.clear();
}

bool LiveJournal::start(const std::string& path, std::uint64_t session, std::string_view sidecar) {
  std::lock_guard<std::mutex> g(mu_);
  close_locked();
  if (!path_.empty()) std::remove(path_.c_str());
  path_ = path;
  session_ = session;
  samples_done_ = beats_done_ = markers_done_ = 0;
  last_sync_ = -std::numeric_limits<double>::infinity();
  unsynced_ = false;
  file_ = std::fopen(path.c_str(), "wb");
  if (!file_) return false;
  std::string head(kJournalHeader);
  while (!sidecar.empty()) {
    const std::size_t nl = std::min(sidecar.find('\n'), sidecar.size());
    head += kSidecarTag + std::string(sidecar.substr(0, nl)) + "\n";
    sidecar.remove_prefix(std::min(nl + 1, sidecar.size()));
  }
  if (std::fwrite(head.data(), 1, head.size(), file_) != head.size() || !sync_file(file_)) {
    close_locked();
    return false;
  }
  return true;
}

void LiveJournal::collect(std::uint64_t session, const std::vector<double>& samples,
                          const std::vector<double>& beats, const std::vector<Marker>& markers) {
  std::lock_guard<std::mutex> g(mu_);
  if (!file_ || session != session_) return;
  if (samples.size() > samples_done_) {
    samples_.insert(samples_.end(), samples.begin() + samples_done_, samples.end());
    samples_done_ = samples.size();
  }
  if (beats.size() > beats_done_) {
    beats_.insert(beats_.end(), beats.begin() + beats_done_, beats.end());
    beats_done_ = beats.size();
  }
  if (markers.size() > markers_done_) {
    markers_.insert(markers_.end(), markers.begin() + markers_done_, markers.end());
    markers_done_ = markers.size();
  }
}

void LiveJournal::write(double now, bool sync_now) {
  std::lock_guard<std::mutex> g(mu_);
  if (!file_) return;
  if (!samples_.empty() || !beats_.empty() || !markers_.empty()) {
    // Samples and beats first: a marker's index never exceeds what came
    // before it, so a torn tail cannot leave a marker past the recording.
    std::string text = format_recording(samples_);
    const std::string beat_text = format_beats(beats_);
    for (std::size_t at = 0; at < beat_text.size();) {
      const std::size_t nl = beat_text.find('\n', at);
      text += kBeatTag;
      text.append(beat_text, at, nl + 1 - at);
      at = nl + 1;
    }
    char buf[48];
    for (const Marker& m : markers_) {
      int n = std::snprintf(buf, sizeof buf, "%c%d,%ld\n", kMarkerTag, m.key,
                            static_cast<long>(m.sample));
      text.append(buf, static_cast<std::size_t>(n));
    }
    samples_.clear();
    beats_.clear();
    markers_.clear();
    // fflush at once: from then on only a power cut can lose the data.
    if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0) {
      close_locked();
      return;
    }
    unsynced_ = true;
  }
  if (unsynced_ && (sync_now || now - last_sync_ >= kJournalSyncSeconds)) {
    if (!sync_file(file_)) {
      close_locked();
      return;
    }
    last_sync_ = now;
    unsynced_ = false;
  }
}

void LiveJournal::end(bool delete_file) {
  std::lock_guard<std::mutex> g(mu_);
  close_locked();
  if (delete_file && !path_.empty()) std::remove(path_.c_str());
  path_.clear();
}

void LiveJournal::remove(std::uint64_t session) {
  {
    std::lock_guard<std::mutex> g(mu_);
    if (session != session_) return;
  }
  // Between the two locks only start() can change the session, and it
  // already removes the file we would remove.
  remove();
}

std::vector<Recovery> recover_journals(const std::string& recordings_folder, Disk& disk) {
  namespace fs = std::filesystem;
  std::vector<Recovery> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(recordings_folder, ec)) {
    const std::string name = entry.path().filename().string();
    if (!entry.is_regular_file(ec) || !name.ends_with(kJournalEnding)) continue;
    const std::string path = recordings_folder + "/" + name;
    std::optional<std::string> text = disk.read(path);
    if (!text) continue;
    JournalContents j = read_journal(*text);
    Recovery r;
    r.journal = name;
    if (!j.samples.empty() || !j.beats.empty()) {
      const bool beats = !j.beats.empty();
      std::string stem = name.substr(0, name.size() - kJournalEnding.size());
      r.file = stem + std::string(kRecoveredSuffix) + (beats ? std::string(kBeatsEnding) : ".csv");
      r.samples = beats ? static_cast<std::size_t>(beats_time(j.beats)) : j.samples.size();
      r.beats = j.beats.size();
      r.markers = j.markers.size();
      const std::string target = recordings_folder + "/" + r.file;
      // The journal goes only once both files are safely in place; a crash
      // before that recovers again next time, over the same names.
      r.failed =
          !disk.write_atomic(target, beats ? format_beats(j.beats) : format_recording(j.samples))
               .ok() ||
          !disk.write_atomic(markers_path(target), markers_csv(j.markers)).ok() ||
          (!j.sidecar.empty() && !disk.write_atomic(sidecar_path(target), j.sidecar).ok());
    }
    if (!r.failed) (void)disk.remove(path);  // one left behind is recovered again
    out.push_back(std::move(r));
  }
  return out;
}

}  // namespace cvn
