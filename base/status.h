// The outcome of an operation that can fail for reasons outside the program:
// a full disk, a read-only folder, a strap out of range. Either ok, or a
// message a person can act on. Analysis never fails this way (it returns
// empty results); file writers, the sensor link and the engine's operations
// answer with a Status instead of throwing.
#pragma once
#include <string>
#include <utility>

namespace cvn {

class [[nodiscard]] Status {
 public:
  /// Ok.
  Status() = default;
  /// A failure; `message` is for the user (the log may say more).
  static Status error(std::string message) { return Status(std::move(message)); }

  bool ok() const { return !failed_; }
  /// Empty when ok.
  const std::string& message() const { return message_; }

 private:
  explicit Status(std::string message) : failed_(true), message_(std::move(message)) {}
  bool failed_ = false;
  std::string message_;
};

}  // namespace cvn
