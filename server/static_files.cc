#include "server/static_files.h"

#include <utility>

#include "assets/assets.h"
#include "base/files.h"

namespace cvn {

namespace {

// Embedded files the page may load by name. The samples and the report logo
// are embedded too but are not the page's to fetch.
bool is_page_file(std::string_view name) {
  for (std::string_view e : {".html", ".css", ".js", ".png", ".wav"})
    if (name.size() > e.size() && name.ends_with(e)) return true;
  return false;
}

}  // namespace

std::string_view content_type(std::string_view path) {
  static constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".png", "image/png"},
      {".wav", "audio/wav"},
      {".css", "text/css"},
      {".ico", "image/x-icon"},
      {".js", "application/javascript"},
  };
  for (const auto& [ending, type] : kTypes)
    if (path.size() > ending.size() && path.ends_with(ending)) return type;
  return "application/octet-stream";
}

Response file_or_asset(const std::string& path) {
  Response r;
  r.content_type = content_type(path);
  if (std::optional<std::string> disk = read_file(path)) {
    r.body = std::move(*disk);
    return r;
  }
  std::size_t slash = path.rfind('/');
  auto asset = find_asset(slash == std::string::npos ? path : path.substr(slash + 1));
  if (!asset) return Response::not_found();
  r.body.assign(asset->data(), asset->size());
  return r;
}

std::optional<Response> static_route(const std::string& web_root, std::string_view path) {
  if (path == "/" || path == "/index.html") return file_or_asset(web_root + "/index.html");
  // There is no embedded logo.png: without one in the web root this is 404.
  if (path == "/logo.png") return file_or_asset(web_root + "/logo.png");
  if (path.size() < 2 || path[0] != '/') return std::nullopt;
  std::string_view name = path.substr(1);
  // Only names straight from the asset table: no folder, so no way out of
  // the web root.
  if (!is_page_file(name) || !find_asset(name)) return std::nullopt;
  return file_or_asset(web_root + "/" + std::string(name));
}

}  // namespace cvn
