// The strap link's scan and connection procedure against an in-memory stack,
// and the simulated strap feeding a live session end to end.
#include "sensor/polar_ble.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

#include "assets/assets.h"
#include "base/log.h"
#include "engine/engine.h"
#include "sensor/ble_common.h"
#include "sensor/pmd.h"
#include "sensor/simulated_strap.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using test::Sink;

// What the fake stack does; tests change it before connecting.
struct Script {
  std::vector<Advertisement> adverts;
  int pmd_found_on_attempt = 1;  // 0: never
  bool characteristics = true;
  bool settings_reply = true;
  std::chrono::milliseconds open_delay{0};
};

struct FakeLink : BleConnection {
  Script s;
  std::mutex mu;
  std::atomic<bool> closed{false};
  int attempts = 0;
  std::map<std::string, std::function<void(const Bytes&)>> handlers;
  std::vector<Bytes> writes;

  explicit FakeLink(Script script) : s(std::move(script)) {}
  Status watch_connection(std::function<void(bool)>) override { return Status(); }
  Status maintain_connection(bool* kept) override {
    *kept = true;
    return Status();
  }
  bool connected() override { return !closed; }
  Status discover_all(Discovery* out) override {
    *out = {0, 6};
    return Status();
  }
  Status discover_service(const std::string& uuid, Discovery* out) override {
    ++attempts;
    if (attempts == 2) return Status::error("stack hiccup");
    bool found = s.pmd_found_on_attempt != 0 && attempts >= s.pmd_found_on_attempt;
    *out = {found ? 0 : 1, found && uuid == kPmdServiceUuid ? 1 : 0};
    return Status();
  }
  Status has_characteristic(const std::string&, bool* present) override {
    *present = s.characteristics;
    return Status();
  }
  Status subscribe(const std::string& uuid, std::function<void(const Bytes&)> h) override {
    std::lock_guard<std::mutex> g(mu);
    if (closed) return Status::error("closed");
    handlers[uuid] = std::move(h);
    return Status();
  }
  Status write(const std::string& uuid, const Bytes& bytes) override {
    std::lock_guard<std::mutex> g(mu);
    if (closed) return Status::error("closed");
    writes.push_back(bytes);
    if (bytes == pmd_settings_request() && s.settings_reply) handlers[kPmdControlUuid]({0xF0, 1});
    return Status();
  }
  void close() override {
    std::lock_guard<std::mutex> g(mu);
    closed = true;
    handlers.clear();
  }
};

struct FakeStack : BleBackend {
  Script s;
  // Read by the warm-up thread while a test flips them.
  std::atomic<bool> adapter{true};
  std::atomic<bool> scan_fails{false};
  std::atomic<bool> opening{false};
  std::shared_ptr<FakeLink> last;
  std::mutex mu;
  Status has_adapter(bool* present) override {
    *present = adapter;
    return Status();
  }
  Status start_scan(std::function<void(const Advertisement&)> seen) override {
    if (scan_fails) return Status::error("radio off");
    for (const Advertisement& a : s.adverts) seen(a);
    return Status();
  }
  void stop_scan() override {}
  // Opens whatever a stop says: a stack may finish opening anyway.
  Status open_device(std::uint64_t address, std::stop_token,
                     std::shared_ptr<BleConnection>* link) override {
    opening = true;
    std::this_thread::sleep_for(s.open_delay);
    if (address != 0xA09E1A000001ull) return Status();
    std::lock_guard<std::mutex> g(mu);
    last = std::make_shared<FakeLink>(s);
    *link = last;
    return Status();
  }
  std::shared_ptr<FakeLink> link() {
    std::lock_guard<std::mutex> g(mu);
    return last;
  }
};

class PolarBleTest : public testing::Test {
 protected:
  void SetUp() override { stack = std::make_shared<FakeStack>(); }
  // The link's diagnostic lines, each as "] line\n" like the log file's.
  Sink lines;
  LogSink logger() {
    return [this](std::string_view m) { lines.status_cb()(std::string(m)); };
  }
  std::string log() {
    std::string text;
    for (const std::string& line : lines.status_list()) text += "] " + line + "\n";
    return text;
  }

  std::shared_ptr<FakeStack> stack;
  Sink sink;
};

TEST_F(PolarBleTest, ScanListsStrapsWithTheirKindOncePerAddressInAddressOrderOrSaysWhyNot) {
  PolarBle ble(stack, test::quick_timings(), logger());
  EXPECT_EQ(ble.scan().error,
            "No heart-rate strap found. Wear the strap (moisten it) and keep it close.");
  // A scan response brings the name without the service list, or the other
  // way round; neither erases what came before.
  stack->s.adverts = {{0xC0FFEE000002ull, "Polar H10 0000B", true},
                      {0x000000000010ull, "", true},
                      {0xA09E1A000001ull, "Polar H10 1234", false},
                      {0xA09E1A000001ull, "", false},
                      {0x0000000000FFull, "Watch", false},
                      {0x000000000020ull, "Armband", true},
                      {0x000000000020ull, "", false},
                      {0x000000000030ull, "", true},
                      {0x000000000030ull, "TICKR 1A2B", false},
                      {0x000000000010ull, "", false}};
  ScanResult r = ble.scan();
  std::vector<std::tuple<std::string, std::string, SensorKind>> got;
  for (const auto& d : r.devices) got.emplace_back(d.address, d.name, d.kind);
  // An H10 by its name, with or without the service listed; the others only
  // with it; nothing without a name.
  EXPECT_EQ(got, (std::vector<std::tuple<std::string, std::string, SensorKind>>{
                     {"00:00:00:00:00:20", "Armband", SensorKind::kBeats},
                     {"00:00:00:00:00:30", "TICKR 1A2B", SensorKind::kBeats},
                     {"A0:9E:1A:00:00:01", "Polar H10 1234", SensorKind::kEcg},
                     {"C0:FF:EE:00:00:02", "Polar H10 0000B", SensorKind::kEcg}}));
  EXPECT_EQ(r.error, "");
  EXPECT_NE(log().find("] scan() done, 4 strap(s) of 6 device(s)\n"), std::string::npos) << log();
  stack->scan_fails = true;
  r = ble.scan();
  EXPECT_TRUE(r.devices.empty());
  EXPECT_EQ(r.error, "Could not start a Bluetooth scan. Make sure Bluetooth is turned on.");
  EXPECT_TRUE(ble.available());
  stack->adapter = false;
  EXPECT_FALSE(ble.available());
}

// The BlueZ live session checks the commands, every sample in order and the
// statuses; its vanishing strap the "Disconnected."; pmd_test the frames.
TEST_F(PolarBleTest, RetriesDiscoveryThenGivesUpWithTheLastStatus) {
  stack->s.pmd_found_on_attempt = 0;
  PolarBle ble(stack, test::quick_timings(), logger());
  ble.connectAndStream("A0:9E:1A:00:00:01", sink.samples_cb(), sink.status_cb());
  const std::string failure =
      "Could not reach the Polar ECG service (Unreachable). Moisten the strap, keep it close, and "
      "in Windows Bluetooth settings pair the H10, then try again.";
  ASSERT_TRUE(sink.wait_for(failure));
  EXPECT_EQ(sink.statuses, (std::vector<std::string>{"Connecting…", "Connecting… (attempt 2 of 4)",
                                                     "Connecting… (attempt 3 of 4)",
                                                     "Connecting… (attempt 4 of 4)", failure}));
  // Halfway through the attempts one full discovery refreshes a stale service cache.
  std::string l = log();
  EXPECT_NE(l.find("] PMD discovery attempt 2: exception\n"), std::string::npos)
      << l;  // stack failure
  std::size_t full = l.find("] full discovery: Success, 6 services\n");
  ASSERT_NE(full, std::string::npos) << l;
  EXPECT_LT(full, l.find("] PMD discovery attempt 3: Unreachable, 0 svc, conn=1\n"));
  EXPECT_EQ(stack->link()->attempts, 4);
}

TEST_F(PolarBleTest, StartsWithoutASettingsReplyButNotWithoutCharacteristics) {
  stack->s.pmd_found_on_attempt = 3;
  stack->s.settings_reply = false;
  PolarBle ble(stack, test::quick_timings(), logger());
  ble.connectAndStream("A0:9E:1A:00:00:01", sink.samples_cb(), sink.status_cb());
  ASSERT_TRUE(sink.wait_for("Streaming ECG…"));
  EXPECT_NE(log().find("] no settings response (sending start anyway)\n"), std::string::npos);
  EXPECT_EQ(stack->link()->writes.back(), pmd_start_ecg());
  stack->s.characteristics = false;
  ble.connectAndStream("A0:9E:1A:00:00:01", sink.samples_cb(), sink.status_cb());
  EXPECT_TRUE(sink.wait_for("Polar ECG characteristics missing."));
  EXPECT_NE(log().find("] control/data char missing\n"), std::string::npos);
}

TEST_F(PolarBleTest, StopWhileConnectingClosesTheLinkItOpensLater) {
  stack->s.open_delay = 100ms;
  PolarBle ble(stack, test::quick_timings(), logger());
  ble.connectAndStream("A0:9E:1A:00:00:01", sink.samples_cb(), sink.status_cb());
  ASSERT_TRUE(test::wait_until([&] { return stack->opening.load(); }, 2s));
  ble.stop();
  ble.stop();
  const std::size_t seen = sink.status_list().size();
  // The worker finishes against a closed link: closed at once, nothing written or said.
  ASSERT_TRUE(test::wait_until([&] { return stack->link() && stack->link()->closed; }, 2s));
  EXPECT_TRUE(stack->link()->writes.empty());
  EXPECT_EQ(sink.status_list().size(), seen);
}

TEST(SimulatedStrap, LiveSessionReceivesTheRecordingInOrder) {
  test::TempDir data;
  const std::vector<double> ecg = read_recording(*find_asset("Sample 1.txt"));
  Engine engine(data.path(),
                std::make_unique<PolarBle>(make_simulated_strap(ecg), test::quick_timings()));
  // What its scan lists is the browser test's. A strap that is not there is
  // reported as such, not streamed from.
  engine.start_live("A0:9E:1A:00:00:02", std::nullopt, {});
  EXPECT_TRUE(test::wait_until(
      [&] { return engine.snapshot().bt_status.starts_with("Device not found."); }, 5s))
      << engine.snapshot().bt_status;

  engine.start_live(kSimulatedStrapAddress, std::string(kSimulatedStrapName), {});
  // Two notifications of 73 samples arrive in a little over a second.
  EXPECT_TRUE(test::wait_until(
      [&] { return engine.current_samples().size() >= 2 * kSimulatedFrameSamples; }, 5s));
  EXPECT_EQ(engine.snapshot().bt_status, "Streaming ECG…");
  engine.stop();
  std::vector<double> got = engine.current_samples();
  ASSERT_GE(got.size(), 2u * kSimulatedFrameSamples);
  EXPECT_EQ(got.size() % kSimulatedFrameSamples, 0u);
  EXPECT_TRUE(std::equal(got.begin(), got.end(), ecg.begin()));
}

}  // namespace
}  // namespace cvn
