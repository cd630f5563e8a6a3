// Runs a reader tool (EDF and PDF checkers from Debian) on a file we wrote.
#pragma once
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/process.h"

namespace cvn::test {

struct ToolRun {
  int status = -1;  // exit status, -1 when it did not finish in time
  std::string out, err;
};

/// Debian's tools live in /usr/bin; a python3 earlier on PATH may lack the
/// modules Debian installed for its own.
inline bool have_tool(const std::string& path) {
  return ::access(path.c_str(), X_OK) == 0;
}

inline ToolRun run_tool(const std::vector<std::string>& argv, const std::string& home = "/tmp") {
  ChildProcess p(argv, {"PATH=/usr/bin:/bin", "HOME=" + home, "LANG=C.UTF-8"});
  ToolRun r;
  r.status = p.wait_exit(120000);
  r.out = p.out();
  r.err = p.err();
  return r;
}

}  // namespace cvn::test
