// What every sensor-link implementation shares: the process-wide callback
// slots, Bluetooth address text, and the GATT status names.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "sensor/ble_manager.h"

namespace cvn {

/// Replaces the callback slots (under the callback lock).
void set_sensor_callbacks(SamplesCallback on_samples, StatusCallback on_status,
                          BeatsCallback on_beats = nullptr);
/// Empties the slots; once this returns, no callback runs until the next
/// set_sensor_callbacks.
void clear_sensor_callbacks();
/// Calls the status callback under the callback lock; nothing when empty.
void emit_status(const std::string& text);
/// Calls the samples callback under the callback lock; nothing when empty.
void emit_samples(const std::vector<double>& batch);
/// Calls the beats callback under the callback lock; nothing when empty.
void emit_beats(const std::vector<double>& rr_seconds);

/// "12:34:56:78:9a:BC" -> 0x123456789ABC; fields that do not parse count
/// as 0, so a malformed address names a device that is never found.
std::uint64_t parse_ble_address(const std::string& text);
/// 0x123456789ABC -> "12:34:56:78:9A:BC".
std::string format_ble_address(std::uint64_t address);

/// GATT communication status names: 0 "Success", 1 "Unreachable",
/// 2 "ProtocolError", 3 "AccessDenied", else "Unknown".
const char* gatt_status_text(int status);

}  // namespace cvn
