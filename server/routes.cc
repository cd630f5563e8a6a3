#include "server/routes.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "engine/engine.h"
#include "engine/tfr_job.h"
#include "sensor/ble_manager.h"
#include "server/json.h"
#include "server/static_files.h"

namespace fs = std::filesystem;

namespace cvn {

namespace {

constexpr auto kStreamPeriod = std::chrono::milliseconds(50);

std::string json_bool(bool b) {
  return b ? "true" : "false";
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

void stream(Engine& engine, SocketHandle s) {
  send_all(s,
           "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: "
           "no-cache\r\nConnection: keep-alive\r\n\r\n");
  for (;;) {
    std::string event = "data: " + engine.status_json() + "\n\n";
    // One send per event: a short write means the browser went away.
    if (send_some(s, event.data(), event.size()) <= 0) return;
    std::this_thread::sleep_for(kStreamPeriod);
  }
}

void scan(const ServerContext& ctx, SocketHandle s) {
  std::string error;
  std::vector<BleDevice> devices;
  if (BleManager* ble = ctx.engine ? ctx.engine->sensor() : nullptr) devices = ble->scan(error);
  if (!error.empty())
    return send_json(s, "{\"success\":false,\"reason\":" + json_text(error) + "}");
  std::string body = "{\"success\":true,\"devices\":[";
  for (std::size_t i = 0; i < devices.size(); ++i)
    body += (i ? ",{\"name\":" : "{\"name\":") + json_text(devices[i].name) +
            ",\"address\":" + json_text(devices[i].address) + "}";
  send_json(s, body + "]}");
}

// Every route below needs the engine; returns false when the path is not one
// of them.
bool dispatch_api(const ServerContext& ctx, SocketHandle s, const Request& req) {
  Engine& engine = *ctx.engine;
  const std::string& p = req.path;
  if (p == "/mark") {
    int key = static_cast<int>(std::clamp(number_param(req.query, "key", 0.0), -1e9, 1e9));
    send_json(s, "{\"ok\":" + json_bool(engine.add_marker(key)) + "}");
  } else if (p == "/bt_available") {
    BleManager* ble = engine.sensor();
    send_json(s, "{\"available\":" + json_bool(ble && ble->available()) + "}");
  } else if (p == "/recordings") {
    send_json(s, "{\"saved\":" + file_list(ctx.data_folder + "/recordings", {".csv", ".txt"}) +
                     ",\"samples\":" + file_list(ctx.data_folder + "/sample_data", {".txt"}) + "}");
  } else if (p == "/scan") {
    scan(ctx, s);
  } else if (p == "/status") {
    send_json(s, engine.status_json());
  } else if (p == "/seek") {
    engine.seek(number_param(req.query, "frac", 0.0));
    send_json(s, "{\"ok\":true}");
  } else if (p == "/start_replay") {
    std::string folder = req.param("dir") == "saved" ? "/recordings" : "/sample_data";
    std::string path = ctx.data_folder + folder + "/" + req.param("file");
    if (!engine.start_replay(path, req.query))
      return send_json(s, "{\"error\":\"file not found\"}", 404), true;
    send_json(s, "{\"ok\":true}");
  } else if (p == "/start_live") {
    const std::string& address = req.param("address");
    if (address.empty()) return send_json(s, "{\"error\":\"no address\"}", 400), true;
    engine.start_live(address, req.query);
    send_json(s, "{\"ok\":true}");
  } else if (p == "/stop") {
    engine.stop();
    send_json(s, "{\"ok\":true}");
  } else if (p == "/save") {
    send_json(s, engine.save());
  } else if (p == "/tfr") {
    start_tfr_job(engine);
    send_json(s, "{\"ok\":true,\"status\":\"computing\"}");
  } else if (p == "/tfr_status") {
    std::lock_guard<std::recursive_mutex> g(engine.lock());
    send_json(s, "{\"status\":" + json_text(engine.tfr_status) +
                     ",\"error\":" + json_text(engine.tfr_message) + "}");
  } else if (p == "/tfr_images") {
    std::string body;
    {
      std::lock_guard<std::recursive_mutex> g(engine.lock());
      body = "{\"status\":" + json_text(engine.tfr_status) + ",\"images\":";
      if (engine.tfr3_uri.empty() && engine.tfr10_uri.empty())
        body += "null}";
      else
        body += "{\"tfr3\":" + json_text(engine.tfr3_uri) +
                ",\"tfr10\":" + json_text(engine.tfr10_uri) + "}}";
    }
    send_json(s, body);
  } else if (p == "/stream") {
    stream(engine, s);
  } else {
    return false;
  }
  return true;
}

}  // namespace

void dispatch(const ServerContext& ctx, SocketHandle s, const Request& req) {
  const std::string& p = req.path;
  // There is no general static route, so no path can climb out of the web
  // root; "/logo.png" has no embedded copy and answers 404 without a file.
  if (p == "/" || p == "/index.html") return send_file_or_asset(s, ctx.web_root + "/index.html");
  if (p == "/logo.png") return send_file_or_asset(s, ctx.web_root + "/logo.png");
  if (p == "/ball.png") return send_file_or_asset(s, ctx.web_root + "/ball.png");
  if (p == "/piano.wav") return send_file_or_asset(s, ctx.web_root + "/piano.wav");
  if (ctx.engine && dispatch_api(ctx, s, req)) return;
  send_not_found(s);
}

}  // namespace cvn
