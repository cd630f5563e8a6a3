// The dispatcher: request path to the operation that answers it. Every route
// is listed in docs/api.md.
#pragma once
#include <string>
#include <string_view>

#include "server/http.h"
#include "server/response.h"

namespace cvn {

class Engine;

/// What the routes need from the rest of the program. Filled once at start
/// and read-only afterwards.
struct ServerContext {
  std::string web_root;
  Engine* engine = nullptr;  // null: only the page and media are served
  int port = 0;              // the bound port: the Host and Origin checks need it
};

/// One API route: a plain function from the request to its answer. The
/// event stream is the one route that writes to the socket itself.
struct Route {
  std::string_view path;
  Response (*answer)(const ServerContext&, const Request&) = nullptr;
  void (*stream)(const ServerContext&, SocketHandle) = nullptr;
};

/// The API routes in dispatch order.
const Route* find_route(std::string_view path);

/// Answers one request; the path is compared byte for byte, the method never.
/// A request for another host or from another origin (check_request_source)
/// gets 403 before any route runs, static files included: the page must not
/// be framed by another site either.
void dispatch(const ServerContext& ctx, SocketHandle s, const Request& req);

}  // namespace cvn
