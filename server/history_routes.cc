#include "server/history_routes.h"

#include "base/file_names.h"
#include "engine/engine.h"
#include "server/json.h"

namespace cvn {

namespace {

// Unknown parts as null, so that a replay leaves them to the page.
std::string text_or_null(const std::string& s) {
  return s.empty() ? "null" : json_text(s);
}

std::string row_json(const HistoryRow& row) {
  const HistoryFile& f = row.file;
  std::string out = "{\"file\":" + json_text(f.file) + ",\"date\":" + json_text(f.date) +
                    ",\"sex\":" + text_or_null(f.sex) +
                    ",\"age\":" + (f.age >= 0 ? std::to_string(f.age) : "null") +
                    ",\"indur\":" + (f.indur > 0 ? json_number(f.indur) : "null") +
                    ",\"outdur\":" + (f.outdur > 0 ? json_number(f.outdur) : "null") +
                    ",\"pending\":" + (row.pending ? "true" : "false");
  if (row.pending) return out + "}";
  const RecordingSummary& s = row.summary;
  return out + ",\"duration_s\":" + json_number(s.duration_s) +
         ",\"protocol\":" + json_text(s.protocol) + ",\"cvn_mean\":" + json_number(s.cvn_mean) +
         ",\"peak_trough_hr\":" + json_number(s.peak_trough_hr) +
         ",\"rmssd\":" + json_number(s.rmssd) + ",\"lf_hf\":" + json_number(s.lf_hf) +
         ",\"recommended_bpm\":" + json_number(s.recommended_bpm) +
         ",\"error\":" + json_text(s.error) + "}";
}

}  // namespace

Response people_route(const ServerContext& c, const Request&) {
  std::string body = "{\"ok\":true,\"people\":[";
  bool first = true;
  for (const PersonCount& p : c.engine->history().people()) {
    body += (first ? "{\"name\":" : ",{\"name\":") + json_text(p.name) +
            ",\"key\":" + json_text(person_key(p.name)) +
            ",\"recordings\":" + std::to_string(p.recordings) + "}";
    first = false;
  }
  return Response::json(body + "]}");
}

Response history_route(const ServerContext& c, const Request& r) {
  // The key is a file name's worth of a person; one that could name a path
  // is as unknown as a person with no recordings, so a probe learns nothing.
  const std::string& name = r.param("name");
  std::optional<PersonHistory> h;
  if (is_plain_file_name(name)) h = c.engine->history().person(name);
  if (!h) return Response::json(R"({"ok":false,"reason":"No recordings of that person."})");
  std::string body = "{\"ok\":true,\"name\":" + json_text(h->name) + ",\"rows\":[";
  int pending = 0;
  for (std::size_t i = 0; i < h->rows.size(); ++i) {
    body += (i ? "," : "") + row_json(h->rows[i]);
    pending += h->rows[i].pending;
  }
  return Response::json(body + "],\"pending\":" + std::to_string(pending) + "}");
}

}  // namespace cvn
