// What this host answers to other hosts about itself and the guests it runs. docs/services.md describes each answer.
#pragma once

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

namespace vexa::services {

// How browsers and clients reach this host; a port is 0 when nothing listens that way.
struct WebPorts {
  int http_port = 0;
  int https_port = 0;
  bool enable_https = false;
  bool enable_https_redirect = false;
};

struct ServiceParts {
  std::shared_ptr<store::Store> store;
  Machine machine{};
  AddressReader addresses = SystemAddresses;
  std::vector<std::string> volume_roots{"/"};  // folders below which volumes may be asked about
  std::function<WebPorts()> web_ports;
  // Outlives the rows. Null: this host runs no guests, and knows of them what their records tell.
  guests::GuestControl* guests = nullptr;
  // Whether this host can run a guest now: its GuestControl::RateGuest. Without the function it can run none.
  std::function<Result<guests::Rating>(const std::string& guest_id)> rate_guest;
};

// The rows, all for hosts only. Their handlers may be called at the same time.
std::vector<webapi::ApiRow> ServiceRows(const ServiceParts& parts);

}  // namespace vexa::services
