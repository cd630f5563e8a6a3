// Checks on file names that arrive from outside (request parameters, upload
// paths) before they are joined to one of our folders.
#pragma once
#include <string_view>

namespace cvn {

/// True for a name that stays inside the folder it is joined to: not empty,
/// no '/', no '\\' (a separator on Windows), no NUL (which would end the
/// name early in the platform's file calls) and no "..".
bool is_plain_file_name(std::string_view name);

/// True for a relative path of plain names below one folder: not empty, not
/// absolute ("/x", or a drive letter as in "C:" or "C:\\x"), no '\\', no NUL
/// and no ".." component; "a/b.txt" is fine, "a//b" and "./a" are too.
bool is_safe_relative_path(std::string_view path);

}  // namespace cvn
