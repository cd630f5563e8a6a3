#include "server/static_files.h"

#include <optional>
#include <utility>

#include "app/file_util.h"
#include "assets/assets.h"
#include "server/http.h"

namespace cvn {

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

void send_file_or_asset(SocketHandle s, const std::string& path) {
  std::optional<std::string> disk = read_file(path);
  std::string_view body;
  if (disk) {
    body = *disk;
  } else {
    std::size_t slash = path.rfind('/');
    auto asset = find_asset(slash == std::string::npos ? path : path.substr(slash + 1));
    if (!asset) {
      send_not_found(s);
      return;
    }
    body = *asset;
  }
  std::string head = "HTTP/1.1 200 OK\r\nContent-Type: ";
  head += content_type(path);
  head += "\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
  send_all(s, head);
  send_all(s, body);
}

}  // namespace cvn
