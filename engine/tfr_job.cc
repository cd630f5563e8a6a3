#include "engine/tfr_job.h"

#include <exception>
#include <mutex>

#include "engine/engine.h"

namespace cvn {

void start_tfr_job(Engine& engine) {
  TfrInput in;
  std::uint64_t generation;
  {
    std::lock_guard<std::recursive_mutex> g(engine.lock());
    engine.tfr_status = "computing";
    engine.tfr_message.clear();
    SessionCopy c = engine.copy_session();
    in.samples = std::move(c.samples);
    in.cycle_seconds = c.cycle_seconds;
    in.sex = c.sex;
    in.age = c.age;
    generation = c.generation;
  }
  engine.run_detached([&engine, in = std::move(in), generation] {
    TfrImages r;
    try {
      r = compute_tfr_images(in);
    } catch (const std::exception& e) {
      r.error = e.what();
    } catch (...) {
      r.error = "unknown error";
    }
    std::lock_guard<std::recursive_mutex> g(engine.lock());
    // A new session started meanwhile: these images belong to no one.
    if (!engine.same_session(generation)) return;
    if (!r.error.empty()) {
      engine.tfr_status = "error";
      engine.tfr_message = r.error;
      return;
    }
    engine.tfr3_uri = std::move(r.tfr3_uri);
    engine.tfr10_uri = std::move(r.tfr10_uri);
    engine.tfr_status = "done";
  });
}

}  // namespace cvn
