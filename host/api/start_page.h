// GET /: where to go from here.
#pragma once

#include <string_view>

#include "host/http/http_server.h"

namespace vexa::api {

// A page without scripts for browsers, otherwise JSON. `accept` is the header field.
http::HttpResponse MakeStartPage(std::string_view accept);

}  // namespace vexa::api
