// What this host reports to other hosts about itself and the guests that it runs. docs/services.md describes each
// reply.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/base/result.h"
#include "host/guests/guest_control.h"
#include "host/machine/interfaces.h"
#include "host/machine/machine.h"
#include "host/store/store.h"

namespace vexa::api {

// How browsers and clients reach this host; a port is 0 when there is no such listener.
struct WebPorts {
  int http_port = 0;
  int https_port = 0;
  bool enable_https = false;
  bool enable_https_redirect = false;
};

// A host's request for a new certificate.
struct SigningCall {
  std::string host_id;                                       // of the caller
  std::chrono::system_clock::time_point certificate_issued;  // when the one was issued that it has presented
  std::string request;
};

struct ServiceParts {
  std::shared_ptr<store::Store> store;
  machine::Machine machine{};
  machine::AddressReader addresses = machine::SystemAddresses;
  std::vector<std::string> volume_roots{"/"};  // folders below which volumes may be queried
  std::function<WebPorts()> web_ports;
  // Outlives the rows. Null: this host does not run guests, and reports only what is in their records.
  guests::GuestControl* guests = nullptr;
  // Whether this host can run a guest now: its GuestControl::RateGuest. Not set: it cannot run any.
  std::function<Result<guests::Rating>(const std::string& guest_id)> rate_guest;
  // Signs with the authority's key, and returns the certificate. Not set: this host does not have the key.
  std::function<Result<std::string>(const SigningCall& call)> sign_certificate{};
};

// The rows, all for hosts only. Their handlers may be called concurrently.
std::vector<ApiRow> ServiceRows(const ServiceParts& parts);

}  // namespace vexa::api
