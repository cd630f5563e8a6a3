#include "server/routes.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "base/constants.h"
#include "base/file_names.h"
#include "base/files.h"
#include "base/log.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "sensor/ble_manager.h"
#include "server/history_routes.h"
#include "server/json.h"
#include "server/session_params.h"
#include "server/snapshot_json.h"
#include "server/static_files.h"

namespace fs = std::filesystem;

namespace cvn {

namespace {

constexpr auto kStreamPeriod = std::chrono::milliseconds(50);

const char* json_bool(bool b) {
  return b ? "true" : "false";
}

// A request whose parameters cannot start what it asks for.
Response refused(const std::string& reason) {
  return Response::json("{\"ok\":false,\"reason\":" + json_text(reason) + "}");
}

Response ok() {
  return Response::json("{\"ok\":true}");
}

// Names of regular files in `folder` ending in one of `endings`, sorted by
// bytes; a missing folder lists nothing.
std::string file_list(const std::string& folder, std::initializer_list<std::string_view> endings) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    std::string name = it->path().filename().string();
    for (std::string_view e : endings)
      if (name.ends_with(e)) {
        names.push_back(name);
        break;
      }
  }
  std::sort(names.begin(), names.end());
  std::string out = "[";
  for (std::size_t i = 0; i < names.size(); ++i) out += (i ? "," : "") + json_text(names[i]);
  return out + "]";
}

Response mark(const ServerContext& c, const Request& r) {
  int key = static_cast<int>(std::clamp(number_param(r.query, "key", 0.0), -1e9, 1e9));
  return Response::json(std::string("{\"ok\":") + json_bool(c.engine->add_marker(key)) + "}");
}

Response bt_available(const ServerContext& c, const Request&) {
  BleManager* ble = c.engine->sensor();
  return Response::json(std::string("{\"available\":") + json_bool(ble && ble->available()) + "}");
}

Response recordings(const ServerContext& c, const Request&) {
  const std::string& data = c.engine->data_folder();
  return Response::json("{\"saved\":" + file_list(data + "/recordings", {".csv", ".txt"}) +
                        ",\"samples\":" + file_list(data + "/sample_data", {".txt"}) + "}");
}

Response scan(const ServerContext& c, const Request&) {
  ScanResult found;
  if (BleManager* ble = c.engine->sensor()) found = ble->scan();
  if (!found.error.empty())
    return Response::json("{\"success\":false,\"reason\":" + json_text(found.error) + "}");
  std::string body = "{\"success\":true,\"devices\":[";
  for (std::size_t i = 0; i < found.devices.size(); ++i)
    body += (i ? ",{\"name\":" : "{\"name\":") + json_text(found.devices[i].name) +
            ",\"address\":" + json_text(found.devices[i].address) +
            ",\"kind\":" + (found.devices[i].kind == SensorKind::kEcg ? "\"ECG\"" : "\"beats\"") +
            "}";
  return Response::json(body + "]}");
}

Response status(const ServerContext& c, const Request&) {
  return Response::json(snapshot_json(c.engine->snapshot()));
}

// The limits the page applies before it asks, each straight from the constant
// the program enforces, so that the page keeps no copy to fall out of step.
Response config(const ServerContext&, const Request&) {
  return Response::json("{\"sample_rate\":" + json_number(kSampleRate) +
                        ",\"scope_samples\":" + std::to_string(kScopeSamples) +
                        ",\"min_breathing_period\":" + json_number(kMinBreathingPeriod) +
                        ",\"min_import_rate\":" + json_number(kMinImportRate) +
                        ",\"max_import_rate\":" + json_number(kMaxImportRate) +
                        ",\"max_upload_bytes\":" + std::to_string(kMaxBodyBytes) + "}");
}

Response seek(const ServerContext& c, const Request& r) {
  c.engine->seek(number_param(r.query, "frac", 0.0));
  return ok();
}

Response start_replay(const ServerContext& c, const Request& r) {
  // A name that could leave the folder is as missing as one that is not there.
  const std::string& file = r.param("file");
  std::string folder = r.param("dir") == "saved" ? "/recordings" : "/sample_data";
  std::string path = c.engine->data_folder() + folder + "/" + file;
  SessionSettings settings = session_settings(r.query);
  std::string reason, note;
  if (!protocol_params(r.query, &settings, &reason)) return refused(reason);
  // A name that could leave the folder is as missing as one that is not there.
  const Status started =
      is_plain_file_name(file)
          ? c.engine->start_replay(path, settings, replay_options(r.query), &note)
          : Status::error("file not found");
  if (!started.ok()) return Response::json("{\"error\":" + json_text(started.message()) + "}", 404);
  if (!note.empty()) return Response::json("{\"ok\":true,\"note\":" + json_text(note) + "}");
  return ok();
}

Response start_live(const ServerContext& c, const Request& r) {
  const std::string& address = r.param("address");
  if (address.empty()) return Response::json("{\"error\":\"no address\"}", 400);
  std::optional<std::string> device;
  if (auto it = r.query.find("device"); it != r.query.end()) device = it->second;
  SessionSettings settings = session_settings(r.query);
  std::string reason;
  if (!protocol_params(r.query, &settings, &reason)) return refused(reason);
  c.engine->start_live(address, device, settings);
  return ok();
}

Response rf_result(const ServerContext& c, const Request&) {
  const std::optional<RfResult> rf = c.engine->rf_result();
  if (!rf) return refused("This session is not a resonance assessment.");
  return Response::json("{\"ok\":true," + rf_result_json(*rf).substr(1));
}

Response stop(const ServerContext& c, const Request&) {
  c.engine->stop();
  return ok();
}

Response save(const ServerContext& c, const Request&) {
  SaveResult r = c.engine->save();
  if (!r.status.ok())
    return Response::json("{\"ok\":false,\"error\":" + json_text(r.status.message()) + "}");
  return Response::json("{\"ok\":true,\"file\":" + json_text(r.file) +
                        ",\"count\":" + std::to_string(r.count) + "}");
}

Response export_start(const ServerContext& c, const Request&) {
  c.engine->start_export();
  return Response::json("{\"ok\":true,\"status\":\"exporting\"}");
}

Response export_status(const ServerContext& c, const Request&) {
  ExportStatus e = c.engine->export_status();
  std::string body =
      std::string("{\"status\":\"") + job_text(e.state, "exporting") + "\",\"result\":";
  if (e.state == JobState::kDone || e.state == JobState::kError) {
    body += "{\"folder\":" + json_text(e.result.folder) + ",\"files\":[";
    for (std::size_t i = 0; i < e.result.files.size(); ++i)
      body += (i ? "," : "") + json_text(e.result.files[i]);
    body += "]}";
  } else {
    body += "null";
  }
  return Response::json(body + ",\"error\":" + json_text(e.result.error) + "}");
}

Response tfr(const ServerContext& c, const Request&) {
  c.engine->start_tfr();
  return Response::json("{\"ok\":true,\"status\":\"computing\"}");
}

Response tfr_status(const ServerContext& c, const Request&) {
  TfrResult t = c.engine->tfr();
  return Response::json(std::string("{\"status\":\"") + job_text(t.state, "computing") +
                        "\",\"error\":" + json_text(t.message) + "}");
}

Response tfr_images(const ServerContext& c, const Request&) {
  TfrResult t = c.engine->tfr();
  std::string body =
      std::string("{\"status\":\"") + job_text(t.state, "computing") + "\",\"images\":";
  if (t.tfr3_uri.empty() && t.tfr10_uri.empty())
    body += "null}";
  else
    body += "{\"tfr3\":" + json_text(t.tfr3_uri) + ",\"tfr10\":" + json_text(t.tfr10_uri) + "}}";
  return Response::json(std::move(body));
}

Response busy() {
  return Response::json(R"({"ok":false,"reason":"A batch is already running."})");
}

Response batch_start(const ServerContext& c, const Request& r) {
  const std::string& root = r.param("root");
  if (root.empty()) return Response::json(R"({"ok":false,"reason":"No folder selected."})");
  return c.engine->start_batch(root, false, "", std::nullopt) ? ok() : busy();
}

Response batch_status(const ServerContext& c, const Request&) {
  BatchStatus b = c.engine->batch_status();
  std::string body = std::string("{\"status\":\"") + job_text(b.state, "running") +
                     "\",\"total\":" + std::to_string(b.total) +
                     ",\"done\":" + std::to_string(b.done) + ",\"msg\":" + json_text(b.message);
  if (b.state == JobState::kDone || b.state == JobState::kError) {
    const BatchOutcome& o = b.outcome;
    body += ",\"result\":{\"reports\":[";
    for (std::size_t i = 0; i < o.reports.size(); ++i)
      body += (i ? "," : "") + json_text(o.reports[i]);
    body += "],\"folder\":" + json_text(o.folder) + ",\"failed\":[";
    bool first = true;
    for (const BatchItem& item : o.items) {
      if (item.entry.error.empty()) continue;
      body += (first ? "{\"file\":" : ",{\"file\":") + json_text(item.path) +
              ",\"error\":" + json_text(item.entry.error) + "}";
      first = false;
    }
    body += "]}";
  }
  return Response::json(body + "}");
}

Response batch_new(const ServerContext& c, const Request&) {
  // The uploads that follow say what fails, file by file.
  if (const Status s = c.engine->reset_upload_folder(); !s.ok()) logLine(s.message());
  return ok();
}

Response batch_upload(const ServerContext& c, const Request& r) {
  const std::string& rel = r.param("rel");
  // The page sends the path inside the folder the user chose; nothing may
  // land outside the upload area.
  if (!is_safe_relative_path(rel)) return Response::json(R"({"ok":false})");
  const fs::path path = fs::path(c.engine->upload_folder()) / fs::path(rel);
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  if (!write_file(path.string(), r.body).ok()) return Response::json(R"({"ok":false})");
  return ok();
}

Response batch_run(const ServerContext& c, const Request& r) {
  const bool single = r.param("mode") == "single";
  std::string name = r.param("batchname");
  if (name.empty()) name = r.param("patient");
  name = sanitize_file_name(name, "import");
  return c.engine->start_batch(c.engine->upload_folder(), single, name, session_settings(r.query))
             ? ok()
             : busy();
}

Response import(const ServerContext& c, const Request& r) {
  std::string file_name = r.param("fname");
  // Browsers send the bare name of the chosen file; anything else is not ours.
  if (!file_name.empty() && !is_plain_file_name(file_name))
    return Response::json(R"({"ok":false,"note":"The file name must not contain a folder."})");
  if (file_name.empty()) file_name = r.param("name");
  if (file_name.empty()) file_name = "import.txt";
  SessionSettings settings = session_settings(r.query);
  std::string reason;
  if (!protocol_params(r.query, &settings, &reason)) return refused(reason);
  ImportResult i = c.engine->import_recording(r.body, file_name, settings, replay_options(r.query));
  if (!i.status.ok())
    return Response::json("{\"ok\":false,\"note\":" + json_text(i.status.message()) + "}");
  if (i.kubios)
    return Response::json("{\"ok\":true,\"kubios\":true,\"beats\":" + std::to_string(i.beats) +
                          "}");
  return Response::json("{\"ok\":true,\"file\":" + json_text(i.file) + "}");
}

void stream(const ServerContext& c, SocketHandle s) {
  send_all(s,
           "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: "
           "no-cache\r\nConnection: keep-alive\r\n\r\n");
  StreamCursor sent;
  for (;;) {
    std::string event = "data: " + stream_event_json(c.engine->snapshot(), &sent) + "\n\n";
    // One send per event: a short write means the browser went away.
    if (send_some(s, event.data(), event.size()) <= 0) return;
    std::this_thread::sleep_for(kStreamPeriod);
  }
}

// The API, in dispatch order; docs/api.md describes every entry.
constexpr Route kRoutes[] = {
    {"/mark", mark},
    {"/bt_available", bt_available},
    {"/recordings", recordings},
    {"/scan", scan},
    {"/status", status},
    {"/config", config},
    {"/seek", seek},
    {"/start_replay", start_replay},
    {"/start_live", start_live},
    {"/stop", stop},
    {"/rf_result", rf_result},
    {"/save", save},
    {"/export", export_start},
    {"/export_status", export_status},
    {"/tfr", tfr},
    {"/tfr_status", tfr_status},
    {"/tfr_images", tfr_images},
    {"/batch_start", batch_start},
    {"/batch_status", batch_status},
    {"/batch_new", batch_new},
    {"/batch_upload", batch_upload},
    {"/batch_run", batch_run},
    {"/import", import},
    {"/people", people_route},
    {"/history", history_route},
    {"/stream", nullptr, stream},
};

}  // namespace

const Route* find_route(std::string_view path) {
  for (const Route& r : kRoutes)
    if (r.path == path) return &r;
  return nullptr;
}

void dispatch(const ServerContext& ctx, SocketHandle s, const Request& req) {
  switch (check_request_source(req, ctx.port)) {
    case Refusal::kNone:
      break;
    case Refusal::kForeignHost:
      return send_response(s, Response::json("{\"error\":\"foreign host\"}", 403));
    case Refusal::kCrossSite:
      return send_response(s, Response::json("{\"error\":\"cross-site request\"}", 403));
  }
  if (std::optional<Response> file = static_route(ctx.web_root, req.path))
    return send_response(s, *file);
  const Route* route = ctx.engine ? find_route(req.path) : nullptr;
  if (!route) return send_not_found(s);
  if (route->stream) return route->stream(ctx, s);
  send_response(s, route->answer(ctx, req));
}

}  // namespace cvn
