#include "assets/assets.h"

#include "assets/asset_data.h"

namespace cvn {

const std::map<std::string, std::string_view, std::less<>>& asset_table() {
  static const auto table = [] {
    std::map<std::string, std::string_view, std::less<>> t;
    for (int i = 0; i < detail::kEmbeddedFileCount; ++i) {
      const auto& f = detail::kEmbeddedFiles[i];
      t.emplace(f.name, std::string_view(reinterpret_cast<const char*>(f.data), f.size));
    }
    return t;
  }();
  return table;
}

std::optional<std::string_view> find_asset(std::string_view name) {
  const auto& t = asset_table();
  auto it = t.find(name);
  if (it == t.end()) return std::nullopt;
  return it->second;
}

}  // namespace cvn
