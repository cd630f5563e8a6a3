// The people of the recordings folder and each one's recordings, newest
// first, with one summary per recording (reports/history.h). A summary is
// computed once, on threads of its own, and kept beside its recording in
// "<stem>.summary", keyed by the recording's size and modification time, so
// that a later look reads it back and a changed recording is analysed anew.
// Asking never waits for an analysis: rows not computed yet come back as
// pending, and the caller asks again.
#pragma once
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "base/thread_set.h"
#include "reports/history.h"

namespace cvn {

/// Summaries computed at once: each worker holds one recording, so two keep
/// both cores of a small machine busy without starving a live session of
/// memory.
inline constexpr int kHistoryThreads = 2;

struct PersonCount {
  std::string name;
  int recordings = 0;
};

struct HistoryRow {
  HistoryFile file;  // in the recordings folder; its date is the file's time when its name has none
  bool pending = false;
  RecordingSummary summary;  // meaningful unless pending
};

struct PersonHistory {
  std::string name;
  std::vector<HistoryRow> rows;  // newest first
};

class History {
 public:
  explicit History(std::string recordings_folder, int threads = kHistoryThreads);
  ~History();  // asks the workers to stop after their recording and joins them
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  /// Everyone with a recording, sorted by person_key, with their counts.
  std::vector<PersonCount> people();

  /// The rows of the person `name` names (by person_key); nullopt when no
  /// recording is theirs. Rows without a current summary are pending and
  /// queued, this person's ahead of anyone asked for before.
  std::optional<PersonHistory> person(const std::string& name);

 private:
  struct Task {
    std::string path;
    SummaryKey key;
  };
  struct Known {
    SummaryKey key;
    RecordingSummary summary;
  };
  std::vector<HistoryFile> list_folder();
  void work(std::stop_token stop);

  const std::string folder_;
  const int max_workers_;
  std::mutex mu_;
  std::map<std::string, Known> known_;        // by path: summaries read or computed
  std::map<std::string, SummaryKey> queued_;  // by path: waiting or being computed
  std::deque<Task> queue_;
  int workers_ = 0;
  // Last member: stopped and joined first, while all the above still exists.
  ThreadSet threads_;
};

}  // namespace cvn
