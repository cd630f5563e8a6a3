#include "sensor/ble_common.h"

#include <cstdio>
#include <mutex>

namespace cvn {

namespace {

// One pair of slots for the whole process, as there is one strap. The lock
// also serialises the callbacks themselves, so a stop() cannot empty a slot
// while a batch is being delivered.
std::mutex& callback_lock() {
  static std::mutex m;
  return m;
}
SamplesCallback g_samples;
StatusCallback g_status;
BeatsCallback g_beats;

}  // namespace

void set_sensor_callbacks(SamplesCallback on_samples, StatusCallback on_status,
                          BeatsCallback on_beats) {
  std::lock_guard<std::mutex> g(callback_lock());
  g_samples = std::move(on_samples);
  g_status = std::move(on_status);
  g_beats = std::move(on_beats);
}

void clear_sensor_callbacks() {
  std::lock_guard<std::mutex> g(callback_lock());
  g_samples = nullptr;
  g_status = nullptr;
  g_beats = nullptr;
}

void emit_status(const std::string& text) {
  std::lock_guard<std::mutex> g(callback_lock());
  if (g_status) g_status(text);
}

void emit_samples(const std::vector<double>& batch) {
  std::lock_guard<std::mutex> g(callback_lock());
  if (g_samples) g_samples(batch);
}

void emit_beats(const std::vector<double>& rr_seconds) {
  std::lock_guard<std::mutex> g(callback_lock());
  if (g_beats) g_beats(rr_seconds);
}

std::uint64_t parse_ble_address(const std::string& text) {
  unsigned int b[6] = {0, 0, 0, 0, 0, 0};
  std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]);
  std::uint64_t v = 0;
  for (unsigned int x : b) v = v * 256 + x;
  return v;
}

std::string format_ble_address(std::uint64_t a) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%02X:%02X:%02X:%02X:%02X:%02X",
                static_cast<unsigned>((a >> 40) & 0xFF), static_cast<unsigned>((a >> 32) & 0xFF),
                static_cast<unsigned>((a >> 24) & 0xFF), static_cast<unsigned>((a >> 16) & 0xFF),
                static_cast<unsigned>((a >> 8) & 0xFF), static_cast<unsigned>(a & 0xFF));
  return buf;
}

const char* gatt_status_text(int status) {
  switch (status) {
    case 0:
      return "Success";
    case 1:
      return "Unreachable";
    case 2:
      return "ProtocolError";
    case 3:
      return "AccessDenied";
    default:
      return "Unknown";
  }
}

}  // namespace cvn
