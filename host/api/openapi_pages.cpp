#include "host/api/openapi_pages.h"

#include <fmt/format.h>

#include "host/api/console.h"
#include "host/api/upload.h"
#include "host/base/byte_text.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

// What a piece is answered with.
Json::Value Progress() {
  return ToJsonSchema(shape::Object({shape::Always("received", shape::Bytes("How much of the file is on disk."))}));
}

Json::Value TextParameter(const char* name, const char* place, const char* description) {
  Json::Value parameter(Json::objectValue);
  parameter["name"] = name;
  parameter["in"] = place;
  parameter["description"] = description;
  parameter["schema"]["type"] = "string";
  return parameter;
}

}  // namespace

Json::Value ConsoleOperation() {
  using namespace user_error;
  Json::Value operation(Json::objectValue);
  operation["operationId"] = "console";
  operation["tags"].append("VEXA.Virtualization.Guest");
  operation["summary"] =
      "Open the screen or the serial line of a running guest: changes the connection to WebSocket (binary messages) or "
      "to vexa-tunnel (plain bytes). For administrators, and users to whom the guest was granted with its console. The "
      "caller has a session, with the CSRF token beside a cookie, or a ticket from console_ticket.";
  Json::Value guest = TextParameter("guest_id", "path", "The guest's id, a UUID.");
  guest["required"] = true;
  guest["schema"]["format"] = "uuid";
  Json::Value type = TextParameter("type", "query", "\"vnc\", the screen (RFC 6143), or \"serial\", the serial line.");
  type["required"] = true;
  type["schema"]["enum"].append(std::string(kScreenType));
  type["schema"]["enum"].append(std::string(kSerialType));
  Json::Value upgrade = TextParameter("Upgrade", "header", "Together with \"Connection: Upgrade\".");
  upgrade["required"] = true;
  upgrade["schema"]["enum"].append("websocket");
  upgrade["schema"]["enum"].append(std::string(http::kRawTunnel));
  operation["parameters"].append(guest);
  operation["parameters"].append(type);
  operation["parameters"].append(TextParameter("ticket", "query", "In place of a session: good once, for 30 s."));
  operation["parameters"].append(upgrade);
  Json::Value& responses = operation["responses"];
  responses["101"]["description"] = "The connection carries the console.";
  AddFailures(responses,
              {kInternal, kMalformed, kNotLoggedIn, kDenied, kBadCsrfToken, kHttpMethodNotAllowed, kHostBusy,
               kRequestTimeout, kNoSuchAddress, kBadParameter, kNotPermitted, kNotFoundOrUnreadable, kActionFailed,
               kNotRunning, kGuestBusy, kUnavailable, kUnreachable},
              Audience::kUsers);
  for (const char* scheme : {"token", "cookie"}) {
    Json::Value way(Json::objectValue);
    way[scheme] = Json::Value(Json::arrayValue);
    operation["security"].append(way);
  }
  operation["security"].append(Json::Value(Json::objectValue));  // a ticket
  return operation;
}

Json::Value UploadOperation() {
  using namespace user_error;
  Json::Value operation(Json::objectValue);
  operation["operationId"] = "upload";
  operation["tags"].append("VEXA.Virtualization.Image");
  operation["summary"] = fmt::format(
      "Send a piece of at most {} of an image whose upload was begun with upload_begin. For administrators.",
      ByteText(kMaxPieceBytes));
  operation["x-vexa-access"] = std::string(AccessName(Access::kAdministrator));
  operation["x-vexa-lane"] = std::string(LaneName(LaneKind::kLong));
  Json::Value id = TextParameter("upload_id", "path", "The upload's id, a UUID.");
  id["required"] = true;
  id["schema"]["format"] = "uuid";
  Json::Value range = TextParameter(
      "Content-Range", "header",
      "Which bytes of the file the body has, both included, and the size of the file: \"bytes FIRST-LAST/TOTAL\".");
  range["required"] = true;
  range["schema"]["pattern"] = "^bytes [0-9]+-[0-9]+/[0-9]+$";
  operation["parameters"].append(id);
  operation["parameters"].append(range);
  operation["parameters"].append(
      TextParameter("X-Vexa-CSRF", "header", "The session's CSRF token, which a cookie needs."));
  Json::Value& body = operation["requestBody"];
  body["required"] = true;
  body["content"]["application/octet-stream"]["schema"]["type"] = "string";
  body["content"]["application/octet-stream"]["schema"]["format"] = "binary";
  Json::Value& success = operation["responses"]["200"];
  success["description"] = "The piece is on disk; \"received\" in \"data\" says how many bytes there are now.";
  success["content"]["application/json"]["schema"] = SuccessSchema(Progress());
  AddFailures(operation["responses"],
              {kInternal, kMalformed, kNotLoggedIn, kDenied, kBadCsrfToken, kHttpMethodNotAllowed, kHostBusy,
               kRequestTimeout, kNoSuchAddress, kBodyTooLarge, kBadParameter, kNotFoundOrUnreadable, kUnavailable,
               kRecordFailed, kUploadOffset, kNoRoom},
              Audience::kUsers);
  operation["responses"]["409"]["description"] = operation["responses"]["409"]["description"].asString() +
                                                 " The error's details say in \"received\" where the upload continues.";
  return operation;
}

Json::Value PageOperation(const char* id, const char* summary, const char* content_type) {
  Json::Value operation(Json::objectValue);
  operation["operationId"] = id;
  operation["tags"].append("pages");
  operation["summary"] = summary;
  operation["security"] = Json::Value(Json::arrayValue);
  Json::Value& success = operation["responses"]["200"];
  success["description"] = summary;
  success["content"][content_type]["schema"]["type"] =
      std::string_view(content_type) == "application/json" ? "object" : "string";
  return operation;
}

}  // namespace vexa::api
