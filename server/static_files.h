// The page, images and sound: read from the web root on every request (so a
// file placed there wins at once), else served from the embedded copy.
#pragma once
#include <string>
#include <string_view>

#include "server/net.h"

namespace cvn {

/// Content type by the path's ending (case-sensitive); the path must be
/// longer than the ending. Unknown endings are "application/octet-stream".
std::string_view content_type(std::string_view path);

/// Answers with the file at `path`, or the embedded asset named like its
/// last component, or the bare 404. The content type always follows `path`.
void send_file_or_asset(SocketHandle s, const std::string& path);

}  // namespace cvn
