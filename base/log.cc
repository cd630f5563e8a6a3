#include "base/log.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "base/local_time.h"

namespace cvn {

namespace {
std::mutex g_mu;
std::string g_folder;  // empty until start-up has resolved the data folder
}  // namespace

void set_log_folder(const std::string& data_folder) {
  std::lock_guard<std::mutex> g(g_mu);
  g_folder = data_folder;
}

std::string log_path() {
  {
    std::lock_guard<std::mutex> g(g_mu);
    if (!g_folder.empty()) return g_folder + "/cvn_log.txt";
  }
  const char* home = std::getenv("USERPROFILE");
  if (!home) home = std::getenv("HOME");
  if (!home) home = ".";
  return std::string(home) + "/Documents/CVN-Live/cvn_log.txt";
}

void logLine(std::string_view message) {
  std::FILE* f = std::fopen(log_path().c_str(), "a");
  if (!f) return;
  // One write per line keeps lines from concurrent threads whole in append mode.
  std::string line = format_local_time(std::time(nullptr), "%H:%M:%S") + "  [BLE] ";
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), f);
  std::fclose(f);
}

}  // namespace cvn
