// The diagnostic log: one line per sensor-link step, so that a connection
// problem can be traced afterwards. Nothing reads it back.
#pragma once
#include <string>
#include <string_view>

namespace cvn {

/// Where the log lives: <home>/Documents/CVN-Live/cvn_log.txt, with home
/// taken from USERPROFILE, else HOME, else ".". Evaluated on every call.
std::string log_path();

/// Appends "HH:MM:SS  [BLE] <message>\n". The file is opened and closed per
/// line so it is complete even if the process is killed; a missing folder
/// makes this a silent no-op (start-up creates the folder, not the log).
void logLine(std::string_view message);

}  // namespace cvn
