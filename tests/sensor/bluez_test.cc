// The BlueZ backend under the real connection procedure, over a real
// dbus-daemon on a private bus; only bluetoothd is a stand-in
// (tests/sensor/fake_bluez.py, whose neighbourhood these constants name).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <tuple>

#include "base/log.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "sensor/platform_backend.h"
#include "sensor/polar_ble.h"
#include "tests/support/golden_file.h"
#include "tests/support/run_tool.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;

constexpr const char* kStrap = "F0:13:C3:AB:CD:12";
constexpr const char* kStrapName = "Polar H10 ABCDEF12";
constexpr const char* kBeatStrap = "5C:31:3E:00:00:02";
constexpr int kFrameSamples = 73;

int count_lines(const std::string& text, const std::string& line) {
  const std::vector<std::string> lines = test::lines_of(text);
  return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class BluezTest : public testing::Test {
 protected:
  void SetUp() override {
    // Debian's interpreter: python3-dbus and python3-gi install for it.
    if (!test::have_tool("/usr/bin/dbus-daemon")) GTEST_SKIP() << "dbus-daemon is not installed";
    if (test::run_tool({kPython, "-c", "import dbus.mainloop.glib; from gi.repository import GLib"})
            .status != 0)
      GTEST_SKIP() << "python3 with python3-dbus and python3-gi is not installed";
    for (const char* name : {"HOME", "USERPROFILE", "DBUS_SYSTEM_BUS_ADDRESS"})
      if (const char* v = std::getenv(name)) saved_env_.emplace_back(name, v);
    ::setenv("HOME", dir_.path().c_str(), 1);
    ::unsetenv("USERPROFILE");
    std::filesystem::create_directories(dir_ / "Documents/CVN-Live");
    bus_address_ = "unix:path=" + dir_ / "bus";
    bus_ = std::make_unique<test::ChildProcess>(
        std::vector<std::string>{"/usr/bin/dbus-daemon",
                                 "--config-file=" + test::source_path("tests/sensor/bus.conf"),
                                 "--address=" + bus_address_, "--print-address", "--nofork"},
        env());
    ASSERT_TRUE(bus_->wait_for_output("unix:path=", 10000)) << bus_->err();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_address_.c_str(), 1);
  }

  void TearDown() override {
    if (HasFailure()) {
      std::printf("--- cvn_log.txt\n%s--- fake BlueZ calls\n%s", test::slurp(log_path()).c_str(),
                  fake_log().c_str());
      if (fake_ && fake_->wait_exit(100) != 0)
        std::printf("--- fake BlueZ\n%s", fake_->err().c_str());
    }
    fake_.reset();
    bus_.reset();
    for (const char* name : {"HOME", "USERPROFILE", "DBUS_SYSTEM_BUS_ADDRESS"}) ::unsetenv(name);
    for (const auto& [name, value] : saved_env_) ::setenv(name.c_str(), value.c_str(), 1);
  }

  std::vector<std::string> env() const {
    return {"PATH=/usr/bin:/bin", "HOME=" + dir_.path(), "LANG=C.UTF-8"};
  }

  void start_fake(const std::vector<std::string>& flags = {}) {
    fake_.reset();  // only one may own org.bluez
    std::vector<std::string> argv = {kPython,       test::source_path("tests/sensor/fake_bluez.py"),
                                     "--address",   bus_address_,
                                     "--log",       dir_ / "fake.log",
                                     "--recording", recording()};
    argv.insert(argv.end(), flags.begin(), flags.end());
    fake_ = std::make_unique<test::ChildProcess>(argv, env());
    ASSERT_TRUE(fake_->wait_for_output("ready", 10000)) << fake_->err();
  }

  std::string fake_log() const { return test::slurp(dir_ / "fake.log"); }
  static std::string recording() { return test::source_path("assets/Sample 1.txt"); }
  static std::vector<double> recorded() { return read_recording(test::slurp(recording())); }

  static constexpr const char* kPython = "/usr/bin/python3";
  test::TempDir dir_;
  std::vector<std::pair<std::string, std::string>> saved_env_;
  std::string bus_address_;
  std::unique_ptr<test::ChildProcess> bus_, fake_;
};

TEST_F(BluezTest, ScanListsTheNamedDevicesInAddressOrderAfterTenSeconds) {
  ASSERT_NO_FATAL_FAILURE(start_fake());
  // Real timings: the warm-up's discovery overlaps the scan's.
  PolarBle ble(make_platform_backend());
  EXPECT_TRUE(ble.available());
  auto start = std::chrono::steady_clock::now();
  ScanResult r = ble.scan();
  auto took = std::chrono::steady_clock::now() - start;
  std::vector<std::tuple<std::string, std::string, SensorKind>> got;
  for (const auto& d : r.devices) got.emplace_back(d.address, d.name, d.kind);
  // Named by a property change 2.4 s in, after the warm-up's own scan has
  // ended, and advertising the Heart Rate Service; the H10 by its name. Not
  // the paired band without the service, nor the unnamed one with it.
  EXPECT_EQ(got, (std::vector<std::tuple<std::string, std::string, SensorKind>>{
                     {"5C:31:3E:00:00:02", "Heart Sensor", SensorKind::kBeats},
                     {kStrap, kStrapName, SensorKind::kEcg}}));
  EXPECT_EQ(r.error, "");
  EXPECT_GE(took, 10s);
  EXPECT_LT(took, 12s);
  // One discovery session shared by both, started with the LE filter and
  // stopped when the last one ended.
  std::string calls = fake_log();
  for (const char* call : {"SetDiscoveryFilter Transport=le", "StartDiscovery", "StopDiscovery"})
    EXPECT_EQ(count_lines(calls, call), 1) << call << "\n" << calls;
  EXPECT_FALSE(contains(calls, "refused")) << calls;
}

TEST_F(BluezTest, AdapterMissingSwitchedOffOrUnreachable) {
  auto check = [](bool want_available, const char* what) {
    PolarBle ble(make_platform_backend(), test::quick_timings());
    EXPECT_EQ(ble.available(), want_available) << what;
    ScanResult r = ble.scan();
    EXPECT_TRUE(r.devices.empty()) << what;
    EXPECT_EQ(r.error, "Could not start a Bluetooth scan. Make sure Bluetooth is turned on.")
        << what;
  };
  ASSERT_NO_FATAL_FAILURE(start_fake({"--no-adapter"}));
  check(false, "BlueZ without an adapter");
  ASSERT_NO_FATAL_FAILURE(start_fake({"--powered-off"}));
  check(true, "adapter switched off");
  EXPECT_TRUE(contains(fake_log(), "StartDiscovery refused: powered off"));
  // The log says why, in BlueZ's words.
  EXPECT_TRUE(contains(test::slurp(log_path()),
                       "] BlueZ: cannot scan: org.bluez.Error.NotReady: Resource Not Ready\n"));
  // Unsure is not "no": without BlueZ, or without a bus, the page still
  // offers the scan, which then says what is wrong.
  fake_.reset();
  check(true, "no BlueZ on the bus");
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir_ / "no-bus").c_str(), 1);
  check(true, "no bus");
}

TEST_F(BluezTest, LiveSessionReceivesTheRecordingInOrder) {
  ASSERT_NO_FATAL_FAILURE(start_fake({"--frame-ms", "2"}));
  const std::vector<double> want = recorded();
  ASSERT_GT(want.size(), 10000u);
  test::TempDir data;
  Engine engine(data.path(),
                std::make_unique<PolarBle>(make_platform_backend(), test::quick_timings()));
  engine.start_live(kStrap, std::string(kStrapName), {});
  ASSERT_TRUE(test::wait_until([&] { return contains(fake_log(), "stream complete"); }, 30s));
  // The last frame may still be on its way through the bus.
  EXPECT_TRUE(test::wait_until([&] { return engine.current_samples().size() >= want.size(); }, 5s))
      << engine.current_samples().size() << " of " << want.size();
  EXPECT_EQ(engine.current_samples(), want);
  EXPECT_EQ(engine.snapshot().bt_status, "Streaming ECG…");
  engine.stop();

  const std::string calls = fake_log(), control = "fb005c81-02e7-f387-1cad-8acd2d8df0c8",
                    data_char = "fb005c82-02e7-f387-1cad-8acd2d8df0c8";
  for (const std::string& line :
       {"StartNotify " + data_char, "StartNotify " + control,
        "WriteValue " + control + " 0100 type=request",
        "WriteValue " + control + " 02000001820001010e00 type=request", "StopNotify " + data_char,
        "StopNotify " + control, "Disconnect " + std::string(kStrap)})
    EXPECT_EQ(count_lines(calls, line), 1) << line << "\n" << calls;
}

// Stop never waits for the radio: the link gives up a Connect still pending
// and asks BlueZ to disconnect at once, and the next session streams.
TEST_F(BluezTest, StopWhileConnectingDisconnectsAtOnce) {
  ASSERT_NO_FATAL_FAILURE(start_fake({"--first-connect-ms", "5000", "--frame-ms", "5"}));
  const std::string strap(kStrap);
  test::Sink first, second;  // outlive the link's workers
  PolarBle ble(make_platform_backend(), test::quick_timings());
  ble.connectAndStream(strap, first.samples_cb(), first.status_cb());
  ASSERT_TRUE(test::wait_until([&] { return contains(fake_log(), "Connect " + strap); }, 10s));
  // Stop joins the worker, yet does not wait out the 5 s Connect.
  const auto stopping = std::chrono::steady_clock::now();
  ble.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - stopping, 3s);
  EXPECT_TRUE(contains(fake_log(), "Disconnect " + strap));
  ble.connectAndStream(strap, second.samples_cb(), second.status_cb());
  EXPECT_TRUE(second.wait_for("Streaming ECG…"));
  ble.stop();
  EXPECT_EQ(first.status_list(), std::vector<std::string>{"Connecting…"});
}

// A refused call ends the procedure with the status text that points to the
// log, where BlueZ's own words stand; nothing is written to the strap.
TEST_F(BluezTest, RefusedNotifySaysConnectionFailed) {
  ASSERT_NO_FATAL_FAILURE(start_fake({"--refuse-notify"}));
  test::Sink sink;
  PolarBle ble(make_platform_backend(), test::quick_timings());
  ble.connectAndStream(kStrap, sink.samples_cb(), sink.status_cb());
  ASSERT_TRUE(sink.wait_for("Bluetooth connection failed. See Documents/CVN-Live/cvn_log.txt."));
  EXPECT_EQ(sink.status_list(),
            (std::vector<std::string>{
                "Connecting…", "Connected. Starting ECG…",
                "Bluetooth connection failed. See Documents/CVN-Live/cvn_log.txt."}));
  EXPECT_TRUE(contains(test::slurp(log_path()),
                       "] BlueZ: cannot subscribe: org.bluez.Error.Failed: Operation failed\n"));
  ble.stop();
  EXPECT_FALSE(contains(fake_log(), "WriteValue")) << fake_log();
}

// BlueZ tells of a lost link only by a property change; missing it leaves
// the page on "Streaming ECG…" for good.
TEST_F(BluezTest, StrapVanishingMidStreamSaysDisconnected) {
  ASSERT_NO_FATAL_FAILURE(start_fake({"--frame-ms", "10", "--vanish-after-frames", "40"}));
  test::Sink sink;  // outlives the link's worker
  PolarBle ble(make_platform_backend(), test::quick_timings());
  ble.connectAndStream(kStrap, sink.samples_cb(), sink.status_cb());
  ASSERT_TRUE(sink.wait_for("Disconnected."));
  EXPECT_EQ(sink.status_list(), (std::vector<std::string>{"Connecting…", "Connected. Starting ECG…",
                                                          "Streaming ECG…", "Disconnected."}));
  std::vector<double> want = recorded();
  want.resize(40 * kFrameSamples);
  std::lock_guard<std::mutex> g(sink.mu);
  EXPECT_EQ(sink.samples, want);
  EXPECT_TRUE(contains(test::slurp(log_path()), "] BlueZ: connection lost\n"));
}

// Beat intervals and status texts from the Heart Rate Service, for each
// script the fake strap can send (tests/sensor/fake_bluez.py).
TEST_F(BluezTest, BeatsFromTheHeartRateService) {
  struct Case {
    const char* script;
    const char* address;
    std::vector<std::string> statuses;  // after "Connecting…", "Connected. Starting heart beats…"
    std::vector<int> rr_1024ths;
    int dropped;  // log lines for values shorter than their flags promise
  };
  // The user-facing texts, spelled out once here.
  const std::string on = "Streaming heart beats…", off = "No skin contact – moisten the strap",
                    none = "This strap does not send beat intervals";
  const std::vector<int> script = {790, 1024, 512, 1023, 0, 3328};
  const Case cases[] = {
      {"beats", kBeatStrap, {on}, script, 2},
      {"beats", kStrap, {on}, script, 2},  // an H10 set to beats only: no ECG command
      {"no-contact", kBeatStrap, {off, on}, {790}, 0},
      {"no-rr", kBeatStrap, {on, none, on}, {790}, 0},
  };
  BleTimings t = test::quick_timings();
  t.no_intervals = 100ms;  // 40 values without intervals take 400 ms
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.script) + " from " + c.address);
    std::filesystem::remove(dir_ / "fake.log");  // each case's calls alone
    ASSERT_NO_FATAL_FAILURE(start_fake({"--frame-ms", "10", "--hr-script", c.script}));
    const std::string log_before = test::slurp(log_path());
    test::Sink sink;
    std::vector<double> beats;  // guarded by sink.mu
    auto on_beats = [&](const std::vector<double>& b) {
      std::lock_guard<std::mutex> g(sink.mu);
      beats.insert(beats.end(), b.begin(), b.end());
    };
    PolarBle ble(make_platform_backend(), t);
    ble.connect_and_stream_beats(c.address, on_beats, sink.status_cb());
    ASSERT_TRUE(test::wait_until([&] { return contains(fake_log(), "hr stream complete"); }, 20s));
    std::vector<double> want;
    for (int v : c.rr_1024ths) want.push_back(v / 1024.0);
    EXPECT_TRUE(test::wait_until(
        [&] {
          std::lock_guard<std::mutex> g(sink.mu);
          return beats.size() >= want.size();
        },
        5s));
    ble.stop();
    std::vector<std::string> statuses = {"Connecting…", "Connected. Starting heart beats…"};
    statuses.insert(statuses.end(), c.statuses.begin(), c.statuses.end());
    EXPECT_EQ(sink.status_list(), statuses);
    std::lock_guard<std::mutex> g(sink.mu);
    EXPECT_EQ(beats, want);
    const std::string log = test::slurp(log_path()).substr(log_before.size());
    EXPECT_EQ(std::ranges::count_if(test::lines_of(log),
                                    [](const std::string& l) { return contains(l, "dropped"); }),
              c.dropped)
        << log;
    const std::string calls = fake_log();
    EXPECT_EQ(count_lines(calls, "StartNotify 00002a37-0000-1000-8000-00805f9b34fb"), 1) << calls;
    EXPECT_FALSE(contains(calls, "WriteValue")) << calls;
  }
}

}  // namespace
}  // namespace cvn
