// Query parameters into the engine's typed settings: the one place where the
// page's texts ("5,5", "f", "") become numbers and choices.
#pragma once
#include <map>
#include <string>

#include "engine/engine.h"

namespace cvn {

/// Request parameters by name (the parsed query string).
using Params = std::map<std::string, std::string>;

/// A number parameter: absent, empty or unreadable gives `fallback`; a
/// decimal comma is accepted ("5,5" is 5.5).
double number_param(const Params& p, const std::string& key, double fallback);

/// `name`, `indur`, `outdur`, `sex`, `age`, `fs` and `source` (`beats`:
/// heart beats instead of ECG), with their defaults.
SessionSettings session_settings(const Params& p);

/// `protocol` (`free` or `rf`) and, for `rf`, `rates`, `step_s` and `infrac`
/// into `s`. False, with a sentence for the user in `error`, when they
/// cannot be used: the session must then not start.
bool protocol_params(const Params& p, SessionSettings* s, std::string* error);

/// `speed` (default 2) and `label`.
ReplayOptions replay_options(const Params& p);

}  // namespace cvn
