// Start-up: folders, samples, report logo, port, banner, browser, serve.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/constants.h"
#include "reports/report_logo.h"

namespace cvn {

inline constexpr int kDefaultPort = 8000;
/// The first port and the 49 above it are tried, no wrap-around.
inline constexpr int kPortTries = 50;
inline constexpr int kListenBacklog = 128;

/// Reads an environment variable; nullptr when it is not set.
using EnvLookup = std::function<const char*(const char*)>;

struct Folders {
  std::string base;      // the program's resources
  std::string web_root;  // page files here override the embedded ones
  std::string data;      // root of all user data
};

/// Base folder, web root and data folder from the environment and the
/// executable's folder. CVN_BASE wins for both base and data; HOME is
/// consulted before USERPROFILE, also on Windows.
Folders resolve_folders(const EnvLookup& env, const std::string& exe_dir);

/// Creates recordings/, exports/ and sample_data/ under the data folder,
/// rebuilds an empty sample folder, moves "Sample *.txt" left in the base
/// folder's sample_data/, and writes both bundled samples (always, so they
/// match the program). Every failure is ignored: later writers report theirs.
void prepare_data_folder(const Folders& f);

/// report_logo.jpg (or .jpeg) from the web root, else the embedded logo.
ReportLogo load_report_logo(const std::string& web_root);

/// The program: prepare folders, bind, print the banner, serve forever.
/// Returns 1 when no port could be bound.
int run_app(int argc, char** argv);

}  // namespace cvn
