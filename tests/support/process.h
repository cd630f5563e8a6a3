// Runs the real program as a child process with a chosen environment, to test
// start-up the way a user meets it: banner, exit status, folders.
#pragma once
#include <sys/types.h>
#include <string>
#include <vector>

namespace cvn::test {

class ChildProcess {
 public:
  /// Starts `argv[0]` with exactly `env` ("NAME=value" entries) in `cwd`.
  ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env,
               const std::string& cwd = ".");
  ~ChildProcess();  // kills the child if it still runs

  /// Reads standard output until `text` appears or `ms` pass.
  bool wait_for_output(const std::string& text, int ms);
  /// Waits up to `ms` for the exit; returns the exit status or -1.
  int wait_exit(int ms);
  void kill();

  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }

 private:
  void pump(int ms);
  pid_t pid_ = -1;
  int out_fd_ = -1, err_fd_ = -1;
  std::string out_, err_;
  int status_ = -1;
};

}  // namespace cvn::test
