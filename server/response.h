// What a route answers, as a value: the dispatcher sends it. Keeping routes
// free of sockets lets the route table be read (and tested) as a table.
#pragma once
#include <string>
#include <string_view>

#include "server/net.h"

namespace cvn {

struct Response {
  int status = 200;
  std::string_view content_type = "application/json";
  std::string body;
  bool bare_not_found = false;  // the fixed bodiless 404 instead of the above

  static Response json(std::string body, int status = 200) {
    return {status, "application/json", std::move(body), false};
  }
  static Response not_found() { return {404, "", {}, true}; }
};

/// "HTTP/1.1 <status> OK" (the reason is "OK" for every status on purpose:
/// clients read only the code and the body), the content type and length,
/// "Cache-Control: no-store" and "Connection: close", then the body.
void send_response(SocketHandle s, const Response& r);

}  // namespace cvn
