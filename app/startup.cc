#include "app/startup.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "analysis/resonance.h"
#include "app/platform.h"
#include "assets/assets.h"
#include "base/files.h"
#include "base/log.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "engine/journal.h"
#include "sensor/model_strap.h"
#include "sensor/polar_ble.h"
#include "sensor/sensor_link.h"
#include "server/http.h"
#include "server/routes.h"

namespace fs = std::filesystem;

namespace cvn {

namespace {

bool readable(const std::string& path) {
  return read_file(path).has_value();
}

std::string parent_folder(const std::string& path) {
  std::size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Lenient like atoi: leading blanks, trailing junk ignored, no digits is 0.
int parse_port(const char* text) {
  long v = std::strtol(text, nullptr, 10);
  if (v > INT32_MAX - kPortTries) return INT32_MAX - kPortTries;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int>(v);
}

// CVN_SIM_RESONANCE: the model strap's resonance, breaths per minute, within
// the rates an assessment may try (so one can find it); anything else is
// reported and the default taken.
double simulated_resonance(const char* text) {
  if (text == nullptr) return kDefaultModelResonance;
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (end != text && *end == '\0' && v >= kRfMinRate && v <= kRfMaxRate) return v;
  std::fprintf(stderr,
               "CVN_SIM_RESONANCE=%s is not a rate from %g to %g breaths per minute; using %g.\n",
               text, kRfMinRate, kRfMaxRate, kDefaultModelResonance);
  return kDefaultModelResonance;
}

// The sensor link CVN_SIMULATED_STRAP asks for: the bundled sample ("1"), a
// modelled body ("model"), a standard strap sending the sample's beats
// ("beats"), or else the platform's Bluetooth.
std::unique_ptr<BleManager> make_link() {
  const char* sim = std::getenv("CVN_SIMULATED_STRAP");
  const std::string_view mode = sim ? sim : "";
  if (mode == "model") {
    // As make_sensor_link sets up the sample strap: nothing to wake, and a
    // short scan that still feels like one.
    BleTimings t;
    t.warm_up = std::chrono::milliseconds(0);
    t.scan = std::chrono::milliseconds(2000);
    return std::make_unique<PolarBle>(
        make_model_strap(simulated_resonance(std::getenv("CVN_SIM_RESONANCE"))), t);
  }
  if (mode == "beats")
    return make_simulated_beats_link(read_recording(*find_asset("Sample 1.txt")));
  std::optional<std::vector<double>> simulated_ecg;
  if (mode == "1") simulated_ecg = read_recording(*find_asset("Sample 1.txt"));
  return make_sensor_link(std::move(simulated_ecg));
}

void move_file(const fs::path& from, const fs::path& to) {
  std::error_code ec;
  fs::rename(from, to, ec);
  if (!ec) return;
  // Across volumes a rename fails; copy and delete instead.
  if (fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec)) fs::remove(from, ec);
}

}  // namespace

Folders resolve_folders(const EnvLookup& env, const std::string& exe_dir) {
  Folders f;
  if (const char* base = env("CVN_BASE")) {
    f.base = base;
  } else if (readable(exe_dir + "/../Resources/web/index.html")) {
    f.base = exe_dir + "/../Resources";
  } else if (readable(exe_dir + "/web/index.html")) {
    f.base = exe_dir;
  } else {
    f.base = ".";
  }

  f.web_root = f.base + "/web";
  if (!readable(f.web_root + "/index.html") && readable(f.base + "/index.html"))
    f.web_root = f.base;

  std::string home;
  if (const char* h = env("HOME"))
    home = h;
  else if (const char* u = env("USERPROFILE"))
    home = u;

  if (const char* data = env("CVN_DATA"))
    f.data = data;
  else if (!home.empty())
    f.data = home + "/Documents/CVN-Live";
  else
    f.data = ".";
  if (env("CVN_BASE")) f.data = f.base;
  return f;
}

void prepare_data_folder(const Folders& f) {
  std::error_code ec;
  for (const char* sub : {"/recordings", "/exports", "/sample_data"})
    fs::create_directories(f.data + sub, ec);
  // Net effect: an empty folder or a plain file in its place becomes a fresh
  // empty folder; a folder with content fails to be removed and stays.
  const std::string samples = f.data + "/sample_data";
  fs::remove(samples, ec);
  fs::create_directories(samples, ec);

  const fs::path old_samples = f.base + "/sample_data";
  if (fs::is_directory(old_samples, ec)) {
    for (const auto& entry : fs::directory_iterator(old_samples, ec)) {
      std::string name = entry.path().filename().string();
      if (!entry.is_regular_file(ec) || !name.starts_with("Sample ") || !name.ends_with(".txt"))
        continue;
      move_file(entry.path(), fs::path(samples) / name);
    }
  }

  for (const char* name : {"Sample 1.txt", "Sample 2.txt"}) {
    if (auto bytes = find_asset(name)) {
      // The program runs without them; the user only misses the examples.
      if (const Status s = write_file(samples + "/" + name, *bytes); !s.ok()) logLine(s.message());
    }
  }
}

ReportLogo load_report_logo(const std::string& web_root) {
  std::optional<std::string> bytes = read_file(web_root + "/report_logo.jpg");
  if (!bytes) bytes = read_file(web_root + "/report_logo.jpeg");
  if (!bytes || bytes->empty()) {
    auto embedded = find_asset("report_logo.jpg");
    bytes = embedded ? std::string(*embedded) : std::string();
  }
  ReportLogo logo;
  if (jpeg_frame_size(*bytes, &logo.width, &logo.height)) logo.jpeg = std::move(*bytes);
  return logo;
}

int run_app(int argc, char** argv) {
  net_init();
  EnvLookup env = [](const char* name) { return std::getenv(name); };
  const Folders f = resolve_folders(env, parent_folder(executable_path()));
  // The engine lives as long as the process; connection threads and jobs
  // hold on to it until the very end.
  set_log_folder(f.data);
  Engine* engine = new Engine(f.data, make_link());
  prepare_data_folder(f);
  // Before serving, so no new session can start a journal of its own first.
  for (const Recovery& r : recover_journals(f.data + "/recordings")) {
    if (r.failed)
      std::fprintf(stderr, "Could not recover recordings/%s.\n", r.journal.c_str());
    else if (!r.file.empty())
      std::printf("  Recovered an unsaved session as recordings/%s (%.1f s, %zu marker%s).\n",
                  r.file.c_str(), r.samples / kSampleRate, r.markers, r.markers == 1 ? "" : "s");
  }

  ReportLogo logo = load_report_logo(f.web_root);
  if (!logo.empty()) std::printf("  Report logo loaded (%dx%d).\n", logo.width, logo.height);
  engine->set_report_logo(std::move(logo));

  int first_port = argc > 1 ? parse_port(argv[1]) : kDefaultPort;
  int port = 0;
  SocketHandle listener = bind_loopback(first_port, kPortTries, &port);
  if (listener == kInvalidSocket) {
    std::fputs("Could not bind a port.\n", stderr);
    return 1;
  }
  listen_on(listener, kListenBacklog);

  const char* rule = "============================================================\n";
  std::printf("%s", rule);
  std::printf("  Corvane Live %s is running\n", kAppVersion);
  std::printf("  Open your browser at:  http://127.0.0.1:%d/\n", port);
  std::printf("  Close this window to stop.\n");
  std::printf("%s", rule);
  std::fflush(stdout);

  const char* no_browser = std::getenv("CVN_NO_BROWSER");
  if (!no_browser || std::string_view(no_browser) != "1")
    open_browser("http://127.0.0.1:" + std::to_string(port) + "/");

  ServerContext ctx{f.web_root, engine, port};
  serve(listener, [ctx](SocketHandle s, const Request& req) { dispatch(ctx, s, req); });
  return 0;
}

}  // namespace cvn
