#include "host/api/start_page.h"

#include <json/value.h>

#include "json/readers.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

constexpr const char* kDescription = "/openapi.json";
constexpr const char* kDocumentation = "docs/api.md and docs/api/ of the sources, and the folder of the package vexad";

constexpr std::string_view kPage = R"(<!DOCTYPE html>
<html lang="en">
<head><meta charset="utf-8"><title>VEXA Virtualization</title></head>
<body>
<h1>VEXA Virtualization</h1>
<p>This is the API of a host. Its methods are at <code>POST /webapi/API/METHOD</code>.</p>
<ul>
<li><a href="/openapi.json">Description of all methods (OpenAPI)</a></li>
<li><a href="/healthz">Whether the host works</a></li>
<li>Documentation: <code>docs/api.md</code> and <code>docs/api/</code> of the sources, and the folder of the package
<code>vexad</code> in <code>/usr/share/doc</code></li>
<li>On the command line: <code>vexa --help</code></li>
</ul>
</body>
</html>
)";

}  // namespace

http::HttpResponse MakeStartPage(std::string_view accept) {
  http::HttpResponse response;
  response.headers.emplace_back("Vary", "Accept");
  if (accept.find("text/html") != std::string_view::npos) {
    response.content_type = "text/html; charset=utf-8";
    response.headers.emplace_back("Content-Security-Policy", "default-src 'none'; frame-ancestors 'none'");
    response.body = kPage;
    return response;
  }
  Json::Value body(Json::objectValue);
  body["name"] = "VEXA Virtualization";
  body["version"] = VEXA_VERSION;
  body["description"] = kDescription;
  body["health"] = "/healthz";
  body["methods"] = "/webapi/API/METHOD";
  body["documentation"] = kDocumentation;
  response.body = json::ToText(body);
  return response;
}

}  // namespace vexa::api
