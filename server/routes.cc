#include "server/routes.h"

#include "server/static_files.h"

namespace cvn {

void dispatch(const ServerContext& ctx, SocketHandle s, const Request& req) {
  const std::string& p = req.path;
  // There is no general static route, so no path can climb out of the web
  // root; "/logo.png" has no embedded copy and answers 404 without a file.
  if (p == "/" || p == "/index.html") return send_file_or_asset(s, ctx.web_root + "/index.html");
  if (p == "/logo.png") return send_file_or_asset(s, ctx.web_root + "/logo.png");
  if (p == "/ball.png") return send_file_or_asset(s, ctx.web_root + "/ball.png");
  if (p == "/piano.wav") return send_file_or_asset(s, ctx.web_root + "/piano.wav");
  send_not_found(s);
}

}  // namespace cvn
