#include "server/response.h"

#include "server/http.h"

namespace cvn {

void send_response(SocketHandle s, const Response& r) {
  if (r.bare_not_found) return send_not_found(s);
  std::string head = "HTTP/1.1 ";
  head += std::to_string(r.status);
  head += " OK\r\nContent-Type: ";
  head += r.content_type;
  head += "\r\nContent-Length: ";
  head += std::to_string(r.body.size());
  head += "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
  send_all(s, head);
  send_all(s, r.body);
}

}  // namespace cvn
