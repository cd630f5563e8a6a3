// The live journal. Nothing of a live session is on disk until the user
// saves it, so while it runs its samples and markers are also appended to
// recordings/<stem>.journal and pushed to the disk every second: a crash, a
// kill or a power cut then loses at most the last moments, and the next
// start turns the journal into a normal recording. The format is described
// in docs/recording.md.
#pragma once
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/disk.h"
#include "base/recording.h"

namespace cvn {

/// Neither ".csv" nor ".txt": a journal is never listed as a recording.
inline constexpr std::string_view kJournalEnding = ".journal";
/// Appended to the stem of a recording made from a journal.
inline constexpr std::string_view kRecoveredSuffix = "_recovered";
/// Written data reaches the disk this long after the last sync at most; the
/// acquisition clock writes every tick, so a power cut loses under 2 s.
inline constexpr double kJournalSyncSeconds = 1.0;

/// The stem saved recordings and journals share, without an ending:
/// "<sanitised name>_on<in>_off<out>_<sex><age>_<YYYYmmdd-HHMMSS>".
std::string session_stem(std::string_view name, double indur, double outdur, const std::string& sex,
                         int age, std::int64_t unix_time);

struct JournalContents {
  std::vector<double> samples;
  /// A beat session's intervals, seconds; it has no samples.
  std::vector<double> beats;
  std::vector<Marker> markers;
  /// The session's sidecar text (engine/sidecar.h) as start() was given it;
  /// empty when none.
  std::string sidecar;
};

/// Samples, beats and markers from journal text. A last line without its
/// line feed is a torn write and is dropped, and so is a marker past the
/// last sample (or the end of the last beat) that survived. Never fails.
JournalContents read_journal(std::string_view text);

/// Appends one live session to its journal file. Thread-safe; its own lock
/// is taken inside the engine lock (collect), never the other way round.
class LiveJournal {
 public:
  LiveJournal() = default;
  ~LiveJournal();  // closes the file and leaves it for recovery
  LiveJournal(const LiveJournal&) = delete;
  LiveJournal& operator=(const LiveJournal&) = delete;

  /// Removes the journal still open (its session was kept or had nothing to
  /// keep; one that could not be saved was released first) and starts
  /// one at `path` for session `session`, recording `sidecar` (the text of
  /// the session's sidecar, if it has one) so that a recovery restores it.
  /// False when the file cannot be made: the session then runs without a
  /// journal.
  bool start(const std::string& path, std::uint64_t session, std::string_view sidecar = {});

  /// Queues what `samples`, `beats` (intervals, seconds) and `markers` hold
  /// beyond the last call; no I/O. Ignored unless `session` is the journal's.
  /// REQUIRES: the lock guarding them is held; they only grow in a session.
  void collect(std::uint64_t session, const std::vector<double>& samples,
               const std::vector<double>& beats, const std::vector<Marker>& markers);

  /// Appends what was collected and hands it to the system, which keeps it
  /// through a crash or kill of this process; syncs it to the disk when
  /// kJournalSyncSeconds have passed since the last sync (`now`, monotonic
  /// seconds) or when `sync_now`. A failed write ends the journal (what is
  /// on disk stays recoverable; the session itself goes on).
  void write(double now, bool sync_now);

  /// Closes and removes the journal, whichever session it belongs to.
  void remove() { end(true); }
  /// Closes and removes the journal when it belongs to `session`.
  void remove(std::uint64_t session);
  /// Closes the journal and leaves it on disk, for the next start to
  /// recover: its session could not be saved.
  void release() { end(false); }

 private:
  void close_locked();  // REQUIRES: mu_ held
  void end(bool delete_file);

  std::mutex mu_;
  std::FILE* file_ = nullptr;
  std::string path_;
  std::uint64_t session_ = 0;
  std::size_t samples_done_ = 0, beats_done_ = 0, markers_done_ = 0;  // collected so far
  std::vector<double> samples_, beats_;                               // collected, not written
  std::vector<Marker> markers_;
  double last_sync_ = 0;
  bool unsynced_ = false;
};

/// What became of one journal found at start-up.
struct Recovery {
  std::string journal;  // file name of the journal
  std::string file;     // the recording made from it; empty when none
  /// Its length in samples at kSampleRate: a beat recording's time x 130.
  std::size_t samples = 0, markers = 0;
  std::size_t beats = 0;  // intervals of a beat recording
  bool failed = false;    // could not be written out; the journal stays
};

/// Turns every journal in `recordings_folder` into
/// "<stem>_recovered.csv" (a beat session's into "<stem>_recovered_RR.txt")
/// with its markers file (and its sidecar, when the
/// session had one) beside it, then removes the
/// journal. A journal without samples is just removed. A journal whose
/// recording or markers cannot be written (a full disk, a read-only folder)
/// stays for the next start: it may be the only copy of that session.
std::vector<Recovery> recover_journals(const std::string& recordings_folder,
                                       Disk& disk = Disk::system());

}  // namespace cvn
