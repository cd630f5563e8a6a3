#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace cvn::test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& env, const std::string& cwd) {
  int out[2], err[2];
  if (::pipe(out) != 0 || ::pipe(err) != 0) std::abort();
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    ::close(out[0]);
    ::close(err[0]);
    if (::chdir(cwd.c_str()) != 0) ::_exit(126);
    std::vector<char*> a, e;
    for (const auto& s : argv) a.push_back(const_cast<char*>(s.c_str()));
    for (const auto& s : env) e.push_back(const_cast<char*>(s.c_str()));
    a.push_back(nullptr);
    e.push_back(nullptr);
    ::execve(a[0], a.data(), e.data());
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(err[1]);
  out_fd_ = out[0];
  err_fd_ = err[0];
  ::fcntl(out_fd_, F_SETFL, O_NONBLOCK);
  ::fcntl(err_fd_, F_SETFL, O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
  kill();
  if (out_fd_ >= 0) ::close(out_fd_);
  if (err_fd_ >= 0) ::close(err_fd_);
}

void ChildProcess::pump(int ms) {
  pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
  if (::poll(fds, 2, ms) <= 0) return;
  char buf[4096];
  for (int i = 0; i < 2; ++i) {
    long n;
    while ((n = ::read(fds[i].fd, buf, sizeof buf)) > 0) (i == 0 ? out_ : err_).append(buf, n);
  }
}

bool ChildProcess::wait_for_output(const std::string& text, int ms) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (out_.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > until) return false;
    pump(20);
  }
  return true;
}

int ChildProcess::wait_exit(int ms) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (pid_ > 0) {
    int st = 0;
    if (::waitpid(pid_, &st, WNOHANG) == pid_) {
      pid_ = -1;
      status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
      break;
    }
    if (std::chrono::steady_clock::now() > until) return -1;
    pump(20);
  }
  pump(0);
  return status_;
}

void ChildProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace cvn::test
