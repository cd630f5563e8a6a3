#include "engine/batch.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "analysis/cycles.h"
#include "base/files.h"
#include "base/recording.h"
#include "engine/import.h"
#include "reports/export.h"
#include "reports/report.h"

namespace fs = std::filesystem;

namespace cvn {

namespace {

bool ends_with_longer(const std::string& name, std::string_view ending) {
  return name.size() > ending.size() && name.ends_with(ending);
}

// Our own outputs lie beside the recordings they came from; they are not
// recordings themselves.
bool is_recording_file(const std::string& name) {
  if (ends_with_longer(name, ".txt")) return true;
  if (!ends_with_longer(name, ".csv")) return false;
  for (std::string_view ours :
       {"_markers.csv", "_CVN_logpower.csv", "_HRV.csv", "_RR.csv", "_RF.csv"})
    if (ends_with_longer(name, ours)) return false;
  return true;
}

// A beat recording is named for its person as an ECG is: "Kim_RR.txt" is Kim's.
std::string stem_of(const std::string& name) {
  if (ends_with_longer(name, kBeatsEnding))
    return name.substr(0, name.size() - kBeatsEnding.size());
  std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

// Regular files of `folder` that are recordings, sorted by name; folders
// below are searched too when `deep`.
std::vector<BatchFile> recordings_in(const fs::path& folder, bool deep) {
  std::vector<BatchFile> out;
  auto collect = [&out](auto it) {
    std::error_code ec;
    for (decltype(it) end; it != end; it.increment(ec)) {
      if (ec) break;
      std::string name = it->path().filename().string();
      if (it->is_regular_file(ec) && is_recording_file(name))
        out.push_back({it->path().string(), name});
    }
  };
  std::error_code ec;
  if (deep)
    collect(fs::recursive_directory_iterator(folder, ec));
  else
    collect(fs::directory_iterator(folder, ec));
  std::sort(out.begin(), out.end(),
            [](const BatchFile& a, const BatchFile& b) { return a.path < b.path; });
  return out;
}

struct Job {
  const BatchGroup* group;
  const BatchFile* file;
};

// One recording into its export folder. Every way it can fail is a sentence
// for the summary, never an exception.
BatchItem process(const Job& job, const BatchSettings& settings, const std::string& exports,
                  const ReportLogo& logo, const BatchIo& io) {
  BatchItem item;
  const BatchFile& file = *job.file;
  item.person = job.group->name;
  item.path = file.path;
  item.entry.file = file.name;
  ExportInput in;
  std::optional<std::string> read;
  if (file.rr_seconds.empty() && !file.text) {
    read = io.disk.read(file.path);
    if (!read) {
      item.entry.error = "Could not read the file.";
      return item;
    }
  }
  const std::string_view text = read ? *read : file.text ? *file.text : std::string_view();
  if (file.rr_seconds.empty() && ends_with_longer(file.name, kBeatsEnding)) {
    // A strap's beats as we save them: cleaned by the analysis, not as given.
    in.rr_seconds = read_beats(text).rr_seconds;
    in.rr_from_strap = true;
    item.entry.rr_only = true;
    if (in.rr_seconds.size() < kMinKubiosBeats) {
      item.entry.error = "Not a beat recording: fewer than " + std::to_string(kMinKubiosBeats) +
                         " beat intervals in it.";
      return item;
    }
    if (read) {
      if (std::optional<std::string> m = io.disk.read(markers_path(file.path)))
        in.markers = read_markers(*m);
    }
  } else if (!file.rr_seconds.empty() || looks_like_kubios(text)) {
    in.rr_seconds = file.rr_seconds.empty() ? read_kubios_rr(text) : file.rr_seconds;
    item.entry.rr_only = true;
    if (in.rr_seconds.size() < kMinKubiosBeats) {
      item.entry.error = "This looks like a Kubios file but no RR-interval column was found.";
      return item;
    }
  } else {
    in.samples = resample(read_recording(text), settings.sample_rate);
    if (in.samples.size() < kMinImportSamples) {
      item.entry.error = in.samples.empty()
                             ? "Not a recording: no samples in it."
                             : "Too short to analyse: " + std::to_string(in.samples.size()) +
                                   " samples, at least " + std::to_string(kMinImportSamples) +
                                   " (3 s) needed.";
      return item;
    }
    // A recording handed over in memory came without its markers file.
    if (read) {
      if (std::optional<std::string> m = io.disk.read(markers_path(file.path)))
        in.markers = read_markers(*m);
    }
  }
  read.reset();
  // A person with several recordings gets one folder per recording.
  in.name = job.group->files.size() > 1
                ? job.group->name + "_" + sanitize_file_name(stem_of(file.name))
                : job.group->name;
  in.breathing = settings.breathing;
  in.logo = logo;
  in.summary_maps = true;
  ExportResult r = write_export(in, exports, io.clock, io.disk);
  r.summary.file = std::move(item.entry.file);
  r.summary.error = r.error;
  item.entry = std::move(r.summary);
  for (const std::string& f : r.files)
    if (f.ends_with("_report.pdf"))
      item.report = std::filesystem::path(r.folder).filename().string() + "/" + f;
  return item;
}

// Single mode: all of `files` one person's; otherwise each file a person of
// its own, by its name without the extension (the same names merge).
void add_top_level(std::vector<BatchFile> files, bool single, const std::string& report_name,
                   std::map<std::string, BatchGroup>& by_name) {
  if (single) {
    const std::string name = sanitize_file_name(report_name, "import");
    if (!files.empty()) by_name[name] = {name, std::move(files)};
    return;
  }
  for (BatchFile& f : files) {
    std::string name = sanitize_file_name(stem_of(f.name));
    by_name[name].name = name;
    by_name[name].files.push_back(std::move(f));
  }
}

std::vector<BatchGroup> in_order(std::map<std::string, BatchGroup>& by_name) {
  std::vector<BatchGroup> groups;
  for (auto& [name, g] : by_name) groups.push_back(std::move(g));
  return groups;
}

}  // namespace

std::vector<BatchGroup> list_batch(const std::string& folder, bool single,
                                   const std::string& report_name) {
  std::map<std::string, BatchGroup> by_name;  // sorted, and two folders never merge silently
  add_top_level(recordings_in(folder, single), single, report_name, by_name);
  if (single) return in_order(by_name);
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_directory(ec)) continue;
    std::vector<BatchFile> files = recordings_in(it->path(), true);
    if (files.empty()) continue;
    std::string name = sanitize_file_name(it->path().filename().string());
    BatchGroup& g = by_name[name];
    g.name = name;
    g.files.insert(g.files.end(), files.begin(), files.end());
  }
  return in_order(by_name);
}

BatchOutcome run_batch(const BatchRequest& request, const std::string& exports_folder,
                       const ReportLogo& logo, const BatchProgress& progress, int threads,
                       BatchIo io) {
  BatchOutcome out;
  out.folder = exports_folder;
  std::vector<BatchGroup> groups;
  if (request.files.empty()) {
    groups = list_batch(request.folder, request.single, request.report_name);
  } else {
    std::map<std::string, BatchGroup> by_name;
    add_top_level(request.files, request.single, request.report_name, by_name);
    groups = in_order(by_name);
  }
  std::vector<Job> jobs;
  for (const BatchGroup& g : groups)
    for (const BatchFile& f : g.files) jobs.push_back({&g, &f});
  const int total = static_cast<int>(jobs.size());
  if (jobs.empty()) {
    out.message = "No recordings (.txt raw ECG or .csv Kubios) found in that folder.";
    progress(0, 0, out.message);
    return out;
  }
  std::error_code ec;
  std::filesystem::create_directories(exports_folder, ec);
  if (!std::filesystem::is_directory(exports_folder, ec)) {
    out.error = "Could not create the exports folder " + exports_folder + ": " +
                (ec ? ec.message() : std::string("a file of that name is in the way"));
    return out;
  }
  progress(0, total, "Processing…");
  const std::string prefix = request.folder + (request.folder.ends_with('/') ? "" : "/");

  // Each worker holds one recording at a time, so memory follows the
  // largest recording, not the size of the study.
  out.items.resize(jobs.size());
  std::atomic<std::size_t> next{0};
  std::mutex mu;
  int done = 0;
  std::string last_message;
  auto work = [&] {
    for (std::size_t i; !io.stop.stop_requested() && (i = next++) < jobs.size();) {
      // Names the recording just started: with two at a time, the count is
      // the one being worked on, not the ones finished.
      const std::string message = "Processing " + std::to_string(i + 1) + " / " +
                                  std::to_string(total) + " — " + jobs[i].group->name;
      {
        std::lock_guard<std::mutex> g(mu);
        last_message = message;
        progress(done, total, message);
      }
      BatchItem item = process(jobs[i], request.settings, exports_folder, logo, io);
      if (item.path.starts_with(prefix)) item.path.erase(0, prefix.size());
      std::lock_guard<std::mutex> g(mu);
      out.items[i] = std::move(item);
      progress(++done, total, last_message);
    }
  };
  std::vector<std::thread> pool;
  for (int t = 1; t < std::min<int>(threads, total); ++t) pool.emplace_back(work);
  work();
  for (std::thread& t : pool) t.join();
  if (io.stop.stop_requested()) {
    out.error = "The batch was stopped before its end.";
    return out;
  }

  std::size_t written = 0, failed = 0;
  for (const BatchItem& item : out.items) {
    if (!item.entry.error.empty()) {
      ++failed;
      continue;
    }
    ++written;
    if (!item.report.empty()) out.reports.push_back(item.report);
  }
  SummaryReport summary;
  summary.name = !request.report_name.empty()
                     ? request.report_name
                     : std::filesystem::path(request.folder).filename().string();
  summary.created = io.clock.wall();
  summary.logo = logo;
  summary.age_sex_per_person = request.settings.per_person;
  summary.expected_freq = expected_frequency(request.settings.breathing.cycle_seconds());
  // Persons in the order they were listed; their recordings in file order.
  for (BatchItem& item : out.items) {
    if (summary.persons.empty() || summary.persons.back().name != item.person)
      summary.persons.push_back({item.person, {}});
    summary.persons.back().entries.push_back(item.entry);
    // The pictures have served; the status the page polls stays small.
    item.entry.map3 = {};
    item.entry.map10 = {};
  }
  const std::string summary_name = sanitize_file_name(summary.name, "batch") + "_" +
                                   file_time_stamp(summary.created) + "_summary_report.pdf";
  const Status saved =
      io.disk.write(exports_folder + "/" + summary_name, summary_report_pdf(summary));
  if (!saved.ok()) {
    out.error = saved.message();
    return out;
  }
  out.reports.push_back(summary_name);
  out.message = "Done — " + std::to_string(written) + " report(s) written to " + exports_folder +
                "." +
                (failed ? " " + std::to_string(failed) + " file(s) could not be processed." : "");
  return out;
}

}  // namespace cvn
