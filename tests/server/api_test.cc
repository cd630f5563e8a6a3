// The JSON routes and the event stream against a real engine, over loopback.
#include <gtest/gtest.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <thread>

#include "analysis/pipeline.h"
#include "analysis/resonance.h"
#include "assets/assets.h"
#include "base/breathing.h"
#include "base/constants.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "reports/export_files.h"
#include "server/routes.h"
#include "server/snapshot_json.h"
#include "tests/support/http_client.h"
#include "tests/support/kubios_export.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using test::body_of;
using test::http_get;
using test::status_line;
using test::TempDir;

class Api : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* sub : {"/recordings", "/sample_data"})
      std::filesystem::create_directories(data.path() + sub);
    test::spit(data / "sample_data/Sample 1.txt", std::string(*find_asset("Sample 1.txt")));
    test::spit(data / "sample_data/b.txt", "1\n2\n3\n");
    test::spit(data / "recordings/r.csv", "5\n");
    test::spit(data / "recordings/r_markers.csv", "marker,sample_index,seconds\n");
    test::spit(data / "recordings/notes.CSV", "x");
    std::filesystem::create_directories(data / "recordings/folder.csv");
  }
  void TearDown() override { engine.stop(); }

  std::string get(const std::string& target) { return body_of(http_get(server.port(), target)); }
  std::string post(const std::string& target, const std::string& body) {
    return body_of(test::http_post(server.port(), target, body));
  }
  // Polls a job's status route while its answer says `busy`; the last answer.
  std::string wait_while(const std::string& route, const std::string& busy) {
    std::string st;
    for (int i = 0; i < 1000 && (st = get(route)).find(busy) != std::string::npos; ++i)
      std::this_thread::sleep_for(10ms);
    return st;
  }

  TempDir web, data;
  Engine engine{data.path(), nullptr};
  test::TestServer server{[this](SocketHandle s, const Request& r) {
    dispatch(ServerContext{web.path(), &engine, server.port()}, s, r);
  }};
};

TEST_F(Api, RecordingsListsFilesByExactEnding) {
  EXPECT_EQ(get("/recordings"),
            R"({"saved":["r.csv","r_markers.csv"],"samples":["Sample 1.txt","b.txt"]})");
  std::filesystem::remove_all(data / "recordings");
  EXPECT_EQ(get("/recordings"), R"({"saved":[],"samples":["Sample 1.txt","b.txt"]})");
}

// The shortest text that reads back as exactly `v`; independent of the
// server's own number writer, whose six digits would not hold every limit.
std::string exact(double v) {
  char buf[32];
  return std::string(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
}

// The page applies these limits as given, so each must be the program's own
// constant, in full (536870912, not 5.36871e+08).
TEST_F(Api, ConfigGivesThePageTheProgramsOwnLimits) {
  EXPECT_EQ(get("/config"), "{\"sample_rate\":" + exact(kSampleRate) +
                                ",\"scope_samples\":" + exact(kScopeSamples) +
                                ",\"min_breathing_period\":" + exact(kMinBreathingPeriod) +
                                ",\"min_import_rate\":" + exact(kMinImportRate) +
                                ",\"max_import_rate\":" + exact(kMaxImportRate) +
                                ",\"max_upload_bytes\":" + exact(kMaxBodyBytes) + "}");
}

TEST_F(Api, WithoutASensorLinkScanIsEmptyAndLiveStillStarts) {
  EXPECT_EQ(get("/bt_available"), R"({"available":false})");
  EXPECT_EQ(get("/scan"), R"({"success":true,"devices":[]})");
  std::string no_address = http_get(server.port(), "/start_live?device=x");
  EXPECT_EQ(status_line(no_address), "HTTP/1.1 400 OK");
  EXPECT_EQ(body_of(no_address), R"({"error":"no address"})");
  EXPECT_EQ(get("/start_live?address=AA:BB:CC:DD:EE:FF&device=Polar%20H10"), R"({"ok":true})");
  EXPECT_NE(get("/status").find(R"("mode":"live","running":true)"), std::string::npos);
}

TEST_F(Api, ReplayControlRoutes) {
  EXPECT_EQ(get("/start_replay?dir=saved&file=r.csv&speed=0"), R"({"ok":true})");
  EXPECT_NE(get("/status").find(R"("source_label":"r.csv")"), std::string::npos);
  EXPECT_EQ(get("/start_replay?file=Sample%201.txt&speed=0&label=Mine&name=N"), R"({"ok":true})");
  std::string s = get("/status");
  EXPECT_NE(s.find(R"("mode":"replay","running":true,"name_id":"N","source_label":"Mine")"),
            std::string::npos)
      << s.substr(0, 200);
  EXPECT_EQ(get("/seek?frac=0,5"), R"({"ok":true})");
  EXPECT_NE(get("/status").find(R"("frac":0.5)"), std::string::npos);
  EXPECT_EQ(get("/mark?key=7"), R"({"ok":true})");
  EXPECT_EQ(get("/mark?key=7"), R"({"ok":false})");
  EXPECT_EQ(get("/stop"), R"({"ok":true})");
  EXPECT_NE(get("/status").find(R"("running":false)"), std::string::npos);
  EXPECT_NE(get("/save").find(R"({"ok":true,"file":"N_on5_off11_M40_)"), std::string::npos);
  EXPECT_EQ(get("/rf_result"),
            R"({"ok":false,"reason":"This session is not a resonance assessment."})");

  // An assessment: refused before it starts when its steps cannot be kept,
  // scored on /rf_result once it runs.
  EXPECT_EQ(
      get("/start_replay?file=Sample%201.txt&speed=0&protocol=rf&rates=6"),
      R"({"ok":false,"reason":"Rates must be 2 to 8 numbers from 3 to 10 breaths per minute."})");
  EXPECT_EQ(get("/start_live?address=AA:BB:CC:DD:EE:FF&protocol=slow"),
            R"({"ok":false,"reason":"Unknown breathing protocol \"slow\": use free or rf."})");
  EXPECT_NE(get("/status").find(R"("running":false)"), std::string::npos);
  EXPECT_EQ(get("/start_replay?file=Sample%201.txt&speed=0&protocol=rf&rates=6,5&step_s=60"),
            R"({"ok":true})");
  EXPECT_NE(
      get("/status").find(
          R"("protocol":"rf","rf":{"rates":[6,5],"step_s":60,"infrac":0.4,"step":1,"steps":2,"bpm":6,"left":60})"),
      std::string::npos);
  EXPECT_EQ(get("/seek?frac=1"), R"({"ok":true})");
  EXPECT_TRUE(test::wait_until(
      [&] { return get("/status").find(R"("running":false)") != std::string::npos; }, 5s));
  const std::string rf = get("/rf_result");
  EXPECT_TRUE(rf.starts_with(
      R"({"ok":true,"protocol":{"rates":[6,5],"step_s":60,"infrac":0.4},"steps":[{"bpm":6,"start_s":0,"end_s":60,"breaths":6,"reached":true,"peak_trough_hr":)"))
      << rf;
  EXPECT_NE(rf.find(R"("recommended_bpm":)"), std::string::npos);
}

// One assessment, three readers: /rf_result, the export's table and corvane-analyze on the
// saved recording give the table score_rf gives for the same samples, byte for byte.
TEST_F(Api, AnAssessmentReadsTheSameThroughTheRouteTheExportAndTheAnalyzer) {
  ASSERT_EQ(get("/start_replay?file=Sample%201.txt&speed=0&name=Rf&protocol=rf&rates=6,5.5&step_s="
                "60&infrac=0.45"),
            R"({"ok":true})");
  EXPECT_EQ(get("/seek?frac=1"), R"({"ok":true})");
  ASSERT_TRUE(test::wait_until(
      [&] { return get("/status").find(R"("running":false)") != std::string::npos; }, 5s));
  const std::string route = get("/rf_result");
  const std::string save = get("/save");
  const std::size_t at = save.find(R"("file":")");
  ASSERT_NE(at, std::string::npos) << save;
  const std::string saved =
      data / ("recordings/" + save.substr(at + 8, save.find('"', at + 8) - at - 8));

  const std::vector<double> samples = read_recording(test::slurp(saved));
  const RecordingAnalysis a =
      analyze_recording(EcgSamples{samples}, BreathingSettings{}.cycle_seconds());
  const RfResult want = score_rf(RfProtocol{{6, 5.5}, 60, 0.45}, a.rr, a.hr, a.duration_seconds);
  ASSERT_TRUE(std::isfinite(want.recommended_bpm));
  const std::string json = rf_result_json(want);
  EXPECT_EQ(route, R"({"ok":true,)" + json.substr(1));

  EXPECT_EQ(get("/export"), R"({"ok":true,"status":"exporting"})");
  const std::string exported = wait_while("/export_status", R"("exporting")");
  const std::size_t folder = exported.find(R"("folder":")");
  ASSERT_NE(folder, std::string::npos) << exported;
  const std::string dir =
      exported.substr(folder + 10, exported.find('"', folder + 10) - folder - 10);
  std::string table;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    if (e.path().filename().string().ends_with("_RF.csv")) table = test::slurp(e.path());
  EXPECT_EQ(table, rf_csv(want));

  test::ChildProcess analyzer({CVN_ANALYZE_BINARY, "--protocol", "rf", "--rates", "6,5.5",
                               "--step-s", "60", "--infrac", "0.45", saved},
                              {"PATH=/usr/bin:/bin"});
  ASSERT_EQ(analyzer.wait_exit(60000), 0) << analyzer.err();
  EXPECT_NE(analyzer.out().find(",\"rf\":" + json + ","), std::string::npos);
}

// The replay it starts (label, name, length) is the browser test's.
TEST_F(Api, ImportedRawEcgIsResampledAndSaved) {
  EXPECT_EQ(post("/import?fname=x.txt", ""), R"({"ok":false,"note":"No file received."})");
  const std::string refused =
      R"({"ok":false,"note":"That file did not look like a raw ECG (.txt/.csv with one sample )"
      R"(per line) or a Kubios export."})";
  std::string ecg;
  for (int i = 0; i < 3600; ++i) ecg += std::to_string(i % 360) + "\r\n";  // 10 s at 360 Hz
  EXPECT_EQ(post("/import?fs=3600", ecg), refused);                        // 1 s is too short
  std::string reply = post("/import?fname=My%20Data.txt&fs=360&speed=0&name=P", ecg);
  ASSERT_TRUE(reply.starts_with(R"({"ok":true,"file":"imported_My_Data_)")) << reply;
  const std::string file = reply.substr(19, reply.size() - 21);
  std::string saved = test::slurp(data / ("recordings/" + file));
  EXPECT_EQ(std::count(saved.begin(), saved.end(), '\n'), 1300);  // round(3600 / 360 x 130)
}

TEST_F(Api, ExportWritesANewFolderEachTimeAndSaysWhyItCannot) {
  auto export_and_wait = [&] {
    EXPECT_EQ(get("/export"), R"({"ok":true,"status":"exporting"})");
    return wait_while("/export_status", R"("exporting")");
  };
  EXPECT_EQ(get("/export_status"), R"({"status":"idle","result":null,"error":""})");
  EXPECT_EQ(get("/start_replay?file=Sample%201.txt&speed=0&name=Zo%C3%AB"), R"({"ok":true})");
  EXPECT_EQ(get("/seek?frac=0.6"), R"({"ok":true})");
  const std::string folder = data / "exports/Zo_export";
  EXPECT_EQ(export_and_wait(),
            R"({"status":"done","result":{"folder":")" + folder +
                R"(","files":["Zo_ECG.txt","Zo_HR.txt","Zo_markers.csv","Zo.edf",)"
                R"("Zo_CVN_logpower.csv","Zo_HRV.csv","Zo_RR.csv","Zo_report.pdf"]},"error":""})");
  EXPECT_NE(get("/status").find(R"("export_status":"done")"), std::string::npos);
  EXPECT_NE(export_and_wait().find(R"("folder":")" + folder.substr(0, folder.size() - 7) +
                                   R"(-2_export")"),
            std::string::npos);

  // Nowhere to write: a file stands where the exports folder should be (a
  // read-only folder stops no one when the tests run as root).
  std::filesystem::remove_all(data / "exports");
  test::spit(data / "exports", "");
  std::string failed = export_and_wait();
  EXPECT_TRUE(failed.starts_with(R"({"status":"error","result":{"folder":"","files":[]},)"
                                 R"("error":"Could not create the exports folder )"))
      << failed;
  EXPECT_NE(failed.find(data / "exports"), std::string::npos)
      << "the path, for the person to act on";
  EXPECT_NE(get("/status").find(R"("export_status":"error")"), std::string::npos);
}

TEST_F(Api, UploadedFolderBecomesReportsPerPersonAndNothingEscapes) {
  EXPECT_EQ(get("/batch_status"), R"({"status":"idle","total":0,"done":0,"msg":""})");
  EXPECT_EQ(get("/batch_start?root="), R"({"ok":false,"reason":"No folder selected."})");
  const std::string ecg1(*find_asset("Sample 1.txt")), ecg2(*find_asset("Sample 2.txt"));
  EXPECT_EQ(get("/batch_new"), R"({"ok":true})");
  EXPECT_EQ(post("/batch_upload?rel=Anna%2Fmorning.txt", ecg1), R"({"ok":true})");
  EXPECT_EQ(post("/batch_upload?rel=Ben%2Fmorning.txt", ecg2), R"({"ok":true})");
  EXPECT_EQ(post("/batch_upload?rel=Ben%2Fnotes.txt", "coffee at 9\n"), R"({"ok":true})");
  for (const char* escape : {"..%2Fevil.txt", "%2Ftmp%2Fevil.txt", "a%5C..%5C..%5Cevil.txt",
                             "C:evil.txt", "Anna%2F..%2F..%2Fevil.txt", "ok%00.txt"})
    EXPECT_EQ(post(std::string("/batch_upload?rel=") + escape, "x"), R"({"ok":false})") << escape;
  EXPECT_FALSE(std::filesystem::exists(data / "evil.txt"));

  EXPECT_EQ(get("/batch_run?mode=folder&batchname=Study"), R"({"ok":true})");
  EXPECT_EQ(get("/batch_run?mode=folder"),
            R"({"ok":false,"reason":"A batch is already running."})");
  const std::string st = wait_while("/batch_status", R"("status":"running")");
  EXPECT_TRUE(st.starts_with(R"({"status":"done","total":3,"done":3,"msg":"Done — 2 report(s))"))
      << st;
  // One folder per person, or per recording of a person with several.
  EXPECT_NE(st.find(R"("reports":["Anna_export/Anna_report.pdf",)"
                    R"("Ben_morning_export/Ben_morning_report.pdf","Study_2)"),
            std::string::npos)
      << st;
  // Nothing but the program's own folders in the data folder.
  std::vector<std::string> top;
  for (const auto& e : std::filesystem::directory_iterator(data.path()))
    top.push_back(e.path().filename().string());
  std::sort(top.begin(), top.end());
  EXPECT_EQ(top, (std::vector<std::string>{"_upload_tmp", "exports", "recordings", "sample_data"}));
}

// Its batch and report: RunBatch.RecordingsInMemoryAtAFixedTime and the browser test.
TEST_F(Api, KubiosExportIsTakenAsOneWithItsBeats) {
  std::vector<double> rr;
  for (double t = 0; t < 300;) {  // five minutes breathing at 16 s
    rr.push_back(0.9 + 0.08 * std::sin(2 * M_PI * t / 16));
    t += rr.back();
  }
  std::string reply =
      post("/import?fname=Eva%20k.csv&name=Eva&age=51&sex=F", test::kubios_export(rr, 30));
  EXPECT_EQ(reply, R"({"ok":true,"kubios":true,"beats":)" + std::to_string(rr.size()) + "}");
}

TEST_F(Api, TfrWithTooLittleDataReportsAnError) {
  EXPECT_EQ(get("/tfr_images"), R"({"status":"idle","images":null})");
  EXPECT_EQ(get("/start_replay?file=b.txt"), R"({"ok":true})");
  EXPECT_EQ(get("/tfr"), R"({"ok":true,"status":"computing"})");
  EXPECT_EQ(wait_while("/tfr_status", "computing"),
            R"({"status":"error","error":"Not enough data recorded yet."})");
  EXPECT_EQ(get("/tfr_images"), R"({"status":"error","images":null})");
}

// What a snapshot holds, in which order, is json_test's.
TEST_F(Api, EventStreamFramingAndDisconnect) {
  const int before = test::thread_count();
  SocketHandle s = connect_loopback(server.port());
  send_all(s, "GET /stream HTTP/1.1\r\n\r\n");
  std::string got;
  char buf[65536];
  auto until = std::chrono::steady_clock::now() + 2s;
  auto events = [&] {  // each snapshot a "data:" line ended by a blank line
    std::size_t n = 0;
    for (std::size_t at = 0; (at = got.find("}\n\ndata: {\"mode\":", at)) != std::string::npos;
         ++at)
      ++n;
    return n;
  };
  for (long n; events() < 5 && std::chrono::steady_clock::now() < until &&
               (n = recv_some(s, buf, sizeof buf)) > 0;)
    got.append(buf, n);
  EXPECT_TRUE(got.starts_with(
      "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-cache\r\n"
      "Connection: keep-alive\r\n\r\ndata: {\"mode\":"))
      << got.substr(0, 200);
  EXPECT_GE(events(), 5u);
  close_socket(s);
  // The stream's thread notices at its next send, within about 50 ms.
  EXPECT_TRUE(test::wait_until([&] { return test::thread_count() <= before; }, 2s));
}

// Streams and short requests while sessions start, seek and stop under them.
TEST_F(Api, ConcurrentClientsWhileSessionsStartAndStop) {
  std::atomic<bool> done{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 24; ++i)
    clients.emplace_back([&, i] {
      SocketHandle s = i < 20 ? connect_loopback(server.port()) : kInvalidSocket;
      if (s != kInvalidSocket) send_all(s, "GET /stream HTTP/1.1\r\n\r\n");
      char buf[65536];
      while (!done) {
        bool ok = s != kInvalidSocket ? recv_some(s, buf, sizeof buf) > 0
                                      : http_get(server.port(), i % 2 ? "/status" : "/mark?key=5")
                                            .starts_with("HTTP/1.1 200 OK");
        if (!ok && ++bad) break;
      }
      if (s != kInvalidSocket) close_socket(s);
    });
  for (int round = 0; round < 15; ++round) {
    EXPECT_EQ(get("/start_replay?file=Sample%201.txt&speed=64"), R"({"ok":true})");
    std::this_thread::sleep_for(std::chrono::milliseconds(30 + round * 10));
    if (round % 3 == 0) {
      EXPECT_EQ(get("/seek?frac=0.9"), R"({"ok":true})");
    }
    if (round % 4 == 1) {
      EXPECT_EQ(get("/start_live?address=AA:BB:CC:DD:EE:FF"), R"({"ok":true})");
    }
    EXPECT_EQ(get("/stop"), R"({"ok":true})");
  }
  // One replay left to run to its end under load.
  EXPECT_EQ(get("/start_replay?file=Sample%201.txt&speed=400"), R"({"ok":true})");
  for (int i = 0; i < 400 && engine.running(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_FALSE(engine.running());
  done = true;
  for (auto& t : clients) t.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_NE(get("/status").find(R"("frac":1,)"), std::string::npos);
}

std::string with_headers(int port, const std::string& target, const std::string& headers) {
  return test::exchange(port, {"GET " + target + " HTTP/1.1\r\n" + headers + "\r\n\r\n"});
}

// A page on evil.example whose name was rebound to 127.0.0.1, or one that
// posts to us from another site, gets nothing and changes nothing.
TEST_F(Api, ForeignHostAndCrossSiteRequestsAreRefused) {
  ASSERT_EQ(get("/start_replay?file=Sample%201.txt&speed=0"), R"({"ok":true})");
  const std::string port = std::to_string(server.port()), host = "Host: 127.0.0.1:" + port;
  for (const char* target : {"/", "/recordings", "/stop"}) {
    std::string a = with_headers(server.port(), target, "Host: evil.example:" + port);
    EXPECT_EQ(status_line(a), "HTTP/1.1 403 OK") << target;
    EXPECT_EQ(body_of(a), R"({"error":"foreign host"})");
  }
  for (const char* from : {"Origin: http://evil.example", "Sec-Fetch-Site: cross-site",
                           "Sec-Fetch-Site: same-site", "Origin: null"}) {
    std::string a = with_headers(server.port(), "/stop", host + "\r\n" + from);
    EXPECT_EQ(status_line(a), "HTTP/1.1 403 OK") << from;
    EXPECT_EQ(body_of(a), R"({"error":"cross-site request"})");
  }
  EXPECT_TRUE(engine.running());
  // No Host at all is a command-line tool; the page itself is same-origin,
  // as Chromium and Firefox label it.
  EXPECT_EQ(status_line(test::exchange(server.port(), {"GET /status HTTP/1.1\r\n\r\n"})),
            "HTTP/1.1 200 OK");
  const std::string own =
      "\r\nOrigin: http://127.0.0.1:" + port + "\r\nSec-Fetch-Site: same-origin";
  EXPECT_EQ(body_of(with_headers(server.port(), "/stop", host + own)), R"({"ok":true})");
  EXPECT_FALSE(engine.running());
}

TEST_F(Api, ReplayFileNamesCannotLeaveTheirFolder) {
  test::spit(data / "secret.txt", "1\n2\n3\n");  // exists, one folder up
  for (const char* file : {"nope.txt", "../secret.txt", "..%2Fsecret.txt", "..%5Csecret.txt",
                           "%2Fetc%2Fpasswd", "r.csv%00.txt", ""}) {
    std::string a = http_get(server.port(), std::string("/start_replay?dir=saved&file=") + file);
    EXPECT_EQ(status_line(a), "HTTP/1.1 404 OK") << file;
    EXPECT_EQ(body_of(a), R"({"error":"file not found"})");
  }
  EXPECT_FALSE(engine.running());
}

TEST_F(Api, EightHundredIdleConnectionsDoNotLockThePageOut) {
  constexpr int kIdle = 800;
  // Both ends live in this process: two descriptors per connection.
  if (!test::raise_descriptor_limit(2 * kIdle + 200)) GTEST_SKIP() << "descriptor limit too low";
  const int threads_before = test::thread_count();
  const std::size_t memory_before = test::resident_bytes();
  std::vector<SocketHandle> idle;
  for (int i = 0; i < kIdle; ++i) idle.push_back(connect_loopback(server.port()));
  auto start = std::chrono::steady_clock::now();
  std::string status = get("/status");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_TRUE(status.starts_with(R"({"mode":)")) << status.substr(0, 80);
  // No thread per idle socket, and memory stays flat.
  EXPECT_LE(test::thread_count(), threads_before + 2);
  EXPECT_LT(test::resident_bytes(), memory_before + (64 << 20));
  for (SocketHandle s : idle) close_socket(s);
}

}  // namespace
}  // namespace cvn
