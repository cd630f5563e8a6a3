#include "base/file_names.h"

namespace cvn {

namespace {

bool has_drive_letter(std::string_view p) {
  return p.size() >= 2 && p[1] == ':' &&
         ((p[0] >= 'A' && p[0] <= 'Z') || (p[0] >= 'a' && p[0] <= 'z'));
}

}  // namespace

bool is_plain_file_name(std::string_view name) {
  // ".." anywhere, not only as the whole name: "a..b" is refused too, which
  // costs nothing for the names we write and keeps the rule easy to state.
  return !name.empty() && name.find_first_of(std::string_view("/\\\0", 3)) == name.npos &&
         name.find("..") == name.npos;
}

bool is_safe_relative_path(std::string_view path) {
  if (path.empty() || path[0] == '/' || has_drive_letter(path)) return false;
  if (path.find_first_of(std::string_view("\\\0", 2)) != path.npos) return false;
  for (std::size_t start = 0; start <= path.size();) {
    std::size_t end = path.find('/', start);
    if (end == path.npos) end = path.size();
    if (path.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

}  // namespace cvn
