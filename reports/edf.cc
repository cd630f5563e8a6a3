#include "reports/edf.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "base/byte_order.h"
#include "base/local_time.h"
#include "reports/export_files.h"

namespace cvn {
namespace {

// Every header record is 256 bytes, one for the file and one per signal.
constexpr int kHeaderBlock = 256;
constexpr int kSignals = 2;
// Annotation list separators of EDF+ (section 2.2.2 of the EDF+ definition).
constexpr char kTalSeparator = 0x14;
constexpr char kTalEnd = 0x00;

// Header fields are printable ASCII, left-aligned, blank-padded, cut to width.
void field(std::vector<std::uint8_t>& out, std::string_view value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    char c = i < value.size() ? value[i] : ' ';
    out.push_back(c < 32 || c > 126 ? ' ' : static_cast<std::uint8_t>(c));
  }
}

std::string text(const char* fmt, long long v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}

// A physical limit in at most 8 characters: "-32767", "327.67".
std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.8g", v);
  return std::string(buf).substr(0, 8);
}

// The annotation text of every record: the record's time-keeping entry, then
// the markers due in it.
std::vector<std::string> annotation_texts(std::vector<EdfAnnotation> marks, std::size_t records) {
  std::stable_sort(marks.begin(), marks.end(), [](const EdfAnnotation& a, const EdfAnnotation& b) {
    return a.seconds < b.seconds;
  });
  std::vector<std::string> texts(records);
  std::size_t next = 0;
  for (std::size_t r = 0; r < records; ++r) {
    std::string& t = texts[r];
    t = "+" + std::to_string(r * kEdfRecordSeconds);
    t += kTalSeparator;
    t += kTalSeparator;
    t += kTalEnd;
    const bool last = r + 1 == records;
    const double end = static_cast<double>((r + 1) * kEdfRecordSeconds);
    for (; next < marks.size() && (last || marks[next].seconds < end); ++next) {
      // Onsets are from the start of the file and so never negative here.
      char onset[48];
      std::snprintf(onset, sizeof onset, "+%.*f", 3, std::max(0.0, marks[next].seconds));
      t += onset;
      t += kTalSeparator;
      for (char c : to_ascii(marks[next].label)) t += c < 32 || c > 126 ? ' ' : c;
      t += kTalSeparator;
      t += kTalEnd;
    }
  }
  return texts;
}

}  // namespace

EdfSignal edf_ecg_signal() {
  return {"ECG",
          "Polar H10 chest strap",
          "uV",
          "HP:5Hz LP:49Hz",
          -kEdfDigitalLimit,
          kEdfDigitalLimit,
          -kEdfDigitalLimit,
          kEdfDigitalLimit};
}

EdfSignal edf_heart_rate_signal() {
  return {"HR", "Beat-to-beat intervals", "bpm", "2s Hann smoothing", 0, 327.67, 0, 32767};
}

std::vector<std::uint8_t> edf_file(const EdfRecording& rec) {
  const std::size_t n = rec.samples.size();
  const int fs = rec.sample_rate;
  if (fs < 1 || n == 0) return {};
  const std::size_t per_record = static_cast<std::size_t>(fs) * kEdfRecordSeconds;
  const std::size_t records = (n - 1 + per_record) / per_record;

  // Markers are never dropped: when one second holds more marker text than
  // the usual 120 bytes, the annotation signal of every record is widened to
  // the longest record's text (rounded up to whole 2-byte samples). Readers
  // take the width from the header, so the file stays valid EDF+; only files
  // with a crowded second differ from the usual 60 samples.
  const std::vector<std::string> texts = annotation_texts(rec.annotations, records);
  std::size_t longest = 0;
  for (const std::string& t : texts) longest = std::max(longest, t.size());
  const std::size_t ann_samples = std::max<std::size_t>(kEdfAnnotationSamples, (longest + 1) / 2);

  const std::tm tm = local_time(rec.start_time);
  static constexpr const char* kMonths[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                            "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};
  char date[16], clock[16], startdate[32];
  std::strftime(date, sizeof date, "%d.%m.%y", &tm);
  std::strftime(clock, sizeof clock, "%H.%M.%S", &tm);
  std::snprintf(startdate, sizeof startdate, "%02d-%s-%04d", tm.tm_mday, kMonths[tm.tm_mon],
                tm.tm_year + 1900);

  std::string patient = to_ascii(rec.name);
  std::replace(patient.begin(), patient.end(), ' ', '_');
  if (patient.empty()) patient = "X";

  std::vector<std::uint8_t> out;
  out.reserve(kHeaderBlock * (1 + kSignals) + records * (per_record + ann_samples) * 2);
  field(out, "0", 8);
  field(out, "X X X " + patient, 80);
  field(out, std::string("Startdate ") + startdate + " X X CorvaneLive", 80);
  field(out, date, 8);
  field(out, clock, 8);
  field(out, std::to_string(kHeaderBlock * (1 + kSignals)), 8);
  field(out, "EDF+C", 44);
  field(out, std::to_string(records), 8);
  field(out, std::to_string(kEdfRecordSeconds), 8);
  field(out, std::to_string(kSignals), 4);

  // Signal fields: each field for the data signal, then for the annotations.
  const EdfSignal& s = rec.signal;
  const auto both = [&](std::string_view data, std::string_view ann, std::size_t width) {
    field(out, data, width);
    field(out, ann, width);
  };
  both(s.label, "EDF Annotations", 16);
  both(s.transducer, "", 80);
  both(s.dimension, "", 8);
  both(number(s.physical_min), "-1", 8);
  both(number(s.physical_max), "1", 8);
  both(std::to_string(s.digital_min), "-32768", 8);
  both(std::to_string(s.digital_max), "32767", 8);
  both(s.prefiltering, "", 80);
  both(text("%lld", fs), std::to_string(ann_samples), 8);
  both("", "", 32);

  // Exactly 1 and 0 for the ECG, so that its microvolts are stored as they are.
  const double gain = (s.digital_max - s.digital_min) / (s.physical_max - s.physical_min);
  const double offset = s.digital_min - s.physical_min * gain;
  for (std::size_t r = 0; r < records; ++r) {
    for (std::size_t i = 0; i < per_record; ++i) {
      const std::size_t index = r * per_record + i;
      double v = index < n ? rec.samples[index] : 0.0;
      if (std::isnan(v)) v = 0.0;
      v = std::round(std::clamp(v * gain + offset, static_cast<double>(s.digital_min),
                                static_cast<double>(s.digital_max)));
      put_le(out, static_cast<std::uint16_t>(static_cast<std::int16_t>(v)), 2);
    }
    const std::string& t = texts[r];
    out.insert(out.end(), t.begin(), t.end());
    out.insert(out.end(), ann_samples * 2 - t.size(), 0);
  }
  return out;
}

}  // namespace cvn
