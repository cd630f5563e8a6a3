// The diagnostic log: one line per sensor-link step, so that a connection
// problem can be traced afterwards. Nothing reads it back.
#pragma once
#include <functional>
#include <string>
#include <string_view>

namespace cvn {

/// Where diagnostic lines go; the sensor link takes one so tests can watch it.
using LogSink = std::function<void(std::string_view)>;

/// Puts the log at <data_folder>/cvn_log.txt, beside the user's data. Until
/// start-up calls this, the log is <home>/Documents/CVN-Live/cvn_log.txt with
/// home taken from USERPROFILE, else HOME, else ".".
void set_log_folder(const std::string& data_folder);

/// The current log file.
std::string log_path();

/// Appends "HH:MM:SS  [BLE] <message>\n". The file is opened and closed per
/// line so it is complete even if the process is killed; a missing folder
/// makes this a silent no-op (start-up creates the folder, not the log).
void logLine(std::string_view message);

}  // namespace cvn
