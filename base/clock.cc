#include "base/clock.h"

#include <chrono>
#include <ctime>

namespace cvn {

namespace {
class SystemClock : public Clock {
 public:
  double now() override {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
  }
  std::int64_t wall() override { return static_cast<std::int64_t>(std::time(nullptr)); }
};
}  // namespace

Clock& Clock::system() {
  static SystemClock clock;
  return clock;
}

}  // namespace cvn
