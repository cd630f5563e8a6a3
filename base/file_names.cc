#include "base/file_names.h"

#include <string>

namespace cvn {

namespace {

bool has_drive_letter(std::string_view p) {
  return p.size() >= 2 && p[1] == ':' &&
         ((p[0] >= 'A' && p[0] <= 'Z') || (p[0] >= 'a' && p[0] <= 'z'));
}

// Windows opens a device, not a file, for these names, with or without an
// ending ("NUL.txt"): a request must not reach the console or a serial port.
bool is_device_name(std::string_view name) {
  std::string stem(name.substr(0, name.find('.')));
  while (!stem.empty() && stem.back() == ' ') stem.pop_back();
  for (char& c : stem) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
  if (stem == "CON" || stem == "PRN" || stem == "AUX" || stem == "NUL") return true;
  return stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) &&
         stem[3] >= '1' && stem[3] <= '9';
}

}  // namespace

bool is_plain_file_name(std::string_view name) {
  // ".." anywhere, not only as the whole name: "a..b" is refused too, which
  // costs nothing for the names we write and keeps the rule easy to state.
  // A colon names a drive or, on NTFS, a hidden stream of a file.
  return !name.empty() && name.find_first_of(std::string_view("/\\:\0", 4)) == name.npos &&
         name.find("..") == name.npos && !is_device_name(name);
}

bool is_safe_relative_path(std::string_view path) {
  if (path.empty() || path[0] == '/' || has_drive_letter(path)) return false;
  if (path.find_first_of(std::string_view("\\:\0", 3)) != path.npos) return false;
  for (std::size_t start = 0; start <= path.size();) {
    std::size_t end = path.find('/', start);
    if (end == path.npos) end = path.size();
    const std::string_view part = path.substr(start, end - start);
    if (part == ".." || is_device_name(part)) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace cvn
