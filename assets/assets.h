// The files compiled into the program: the page, the pacer media, the default
// report logo and the two sample recordings.
#pragma once
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace cvn {

/// Name-sorted table of every embedded file, built once on first use
/// (thread-safe) and immutable afterwards.
const std::map<std::string, std::string_view, std::less<>>& asset_table();

/// The bytes of an embedded file by bare name ("ball.png"), or nullopt.
std::optional<std::string_view> find_asset(std::string_view name);

}  // namespace cvn
