// The dispatcher: request path to the operation that answers it.
#pragma once
#include <string>

#include "server/http.h"

namespace cvn {

/// What the routes need from the rest of the program. Filled once at start
/// and read-only afterwards.
class Engine;

struct ServerContext {
  std::string web_root;
  std::string data_folder;
  Engine* engine = nullptr;  // null: only the page and media are served
};

/// Answers one request; the path is compared byte for byte, the method never.
void dispatch(const ServerContext& ctx, SocketHandle s, const Request& req);

}  // namespace cvn
