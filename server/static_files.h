// The page, its modules, images and sound: read from the web root on every
// request (so a file placed there wins at once), else served from the
// embedded copy.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "server/response.h"

namespace cvn {

/// Content type by the path's ending (case-sensitive); the path must be
/// longer than the ending. Unknown endings are "application/octet-stream".
std::string_view content_type(std::string_view path);

/// The file at `path`, or the embedded asset named like its last component,
/// or the bare 404. The content type always follows `path`.
Response file_or_asset(const std::string& path);

/// The answer for a static path of the page: "/" and "/index.html" are the
/// page, "/logo.png" is a file in the web root only, and "/<name>" is any
/// embedded file the page loads (.html, .css, .js, .png, .wav). Nothing when
/// `path` names none of these, so no path reaches another file on disk.
std::optional<Response> static_route(const std::string& web_root, std::string_view path);

}  // namespace cvn
