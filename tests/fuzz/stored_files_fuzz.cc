// What the program reads back of the files it wrote itself: a live journal
// (possibly torn by a crash), a session's sidecar, a cached summary and a
// recording's file name. Any of them may have been cut short or edited by
// hand; what is read must make sense and survive being written again.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/constants.h"
#include "base/recording.h"
#include "engine/journal.h"
#include "engine/sidecar.h"
#include "reports/history.h"

namespace {

// A sidecar read from anything, written and read again, writes the same text.
void sidecar_settles(std::string_view text) {
  const std::string once = cvn::sidecar_text(cvn::read_sidecar(text));
  if (cvn::sidecar_text(cvn::read_sidecar(once)) != once) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  // A recovered journal's markers lie on its recording, with a valid key.
  const cvn::JournalContents journal = cvn::read_journal(text);
  double end = static_cast<double>(journal.samples.size());
  if (!journal.beats.empty()) {
    end = 0;
    for (double rr : journal.beats) end += rr * cvn::kSampleRate;
  }
  for (const cvn::Marker& m : journal.markers)
    if (m.key < 1 || m.key > 9 || m.sample < 0 || m.sample > end) __builtin_trap();
  sidecar_settles(journal.sidecar);
  sidecar_settles(text);

  // The seeds carry this key; a summary that reads is written back the same.
  const cvn::SummaryKey key{1234, 1700000000};
  if (const auto summary = cvn::read_summary(text, key)) {
    const std::string once = cvn::summary_text(*summary, key);
    const auto again = cvn::read_summary(once, key);
    if (!again || cvn::summary_text(*again, key) != once) __builtin_trap();
  }

  // Any file name parses; a session's own name gives back what made it.
  (void)cvn::parse_recording_name(text);
  const cvn::RecordingName back =
      cvn::parse_recording_name(cvn::session_stem(text, 4.5, 5.5, "F", 33, 1700000000) + ".csv");
  if (back.name != cvn::sanitize_file_name(text) || back.indur != 4.5 || back.outdur != 5.5 ||
      back.sex != "F" || back.age != 33 || back.date.size() != 19)
    __builtin_trap();
  return 0;
}
