// The History view's two routes, /people and /history (docs/api.md).
#pragma once
#include "server/routes.h"

namespace cvn {

/// {"ok":true,"people":[{"name":…,"key":…,"recordings":n},…]}
Response people_route(const ServerContext& c, const Request& r);

/// The rows of the person whose key is `name`, newest first.
Response history_route(const ServerContext& c, const Request& r);

}  // namespace cvn
