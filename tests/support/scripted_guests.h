// A host's guests with scripted answers, which record the requests that they get.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "host/guests/guest_control.h"
#include "json/readers.h"

namespace vexa::test {

class ScriptedGuests final : public guests::GuestControl {
 public:
  using Requester = guests::Requester;

  Result<void, Refusal> PowerOn(const std::string& id, const Requester& by) override { return Note("poweron", id, by); }
  Result<void, Refusal> ShutDown(const std::string& id, const Requester& by) override {
    return Note("shutdown", id, by);
  }
  Result<void, Refusal> PowerOff(const std::string& id, const Requester& by) override {
    return Note("poweroff", id, by);
  }
  Result<void, Refusal> Reboot(const std::string& id, const Requester& by) override { return Note("reboot", id, by); }
  Result<void, Refusal> Suspend(const std::string& id, const Requester& by) override { return Note("suspend", id, by); }
  Result<void, Refusal> Resume(const std::string& id, const Requester& by) override { return Note("resume", id, by); }
  Result<void, Refusal> Save(const std::string& id, const Requester& by) override { return Note("save", id, by); }
  Result<void, Refusal> Restore(const std::string& id, const Requester& by) override { return Note("restore", id, by); }
  Result<void, Refusal> Fence(const std::string& id) override { return Note("fence", id, {}); }
  Result<void, Refusal> Delete(const std::string& id, const Requester& by) override { return Note("delete", id, by); }
  Result<Json::Value, Refusal> Create(const Json::Value& parameters, const Requester& by) override {
    last_creation = parameters;
    const auto noted = Note("create", json::StringMember(parameters, "name"), by);
    if (!noted.ok()) return noted.error();
    return created;
  }
  Result<void, Refusal> Import(const guests::ImportRequest& request, const guests::GuestImport::Options& importing,
                               const Requester& by, guests::ImportedGuest& result) override {
    result = imported;
    return Note(importing.mode == guests::ImportMode::kCheck ? "check import" : "import", request.xml, by);
  }
  Result<void, Refusal> Edit(const std::string& id, const Json::Value& edit, const Requester& by) override {
    last_edit = edit;
    return Note("edit", id, by);
  }
  Result<std::vector<domain_xml::Difference>, Refusal> Pending(const std::string& id) override {
    if (const auto noted = Note("pending", id, {}); !noted.ok()) return noted.error();
    return pending;
  }
  Result<void, Refusal> Apply(const std::string& id, const std::vector<domain_xml::Difference>& except,
                              hypervisor::Eject eject, const Requester& by) override {
    applied_except = except;
    return Note(eject == hypervisor::Eject::kForced ? "apply forced" : "apply", id, by);
  }
  Result<void, Refusal> SetHost(const std::string& id, const std::string& host_id) override {
    return Note("hostset " + host_id, id, {});
  }
  void BeginStop() override {}
  bool StopFencedGuests() override { return true; }
  Result<guests::Rating> RateGuest(const std::string&) override { return rating; }
  std::optional<guests::RunningGuest> FindRunningGuest(const std::string&) override { return running; }
  bool IsHypervisorReachable() const override { return is_hypervisor_reachable; }
  std::string HypervisorVersion() const override { return hypervisor_version; }
  Result<void, Refusal> DiscardSaved(const std::string& id, const Requester& by) override {
    return Note("discard_saved", id, by);
  }
  Result<void, Refusal> Release(const std::string& id, const Requester& by) override { return Note("release", id, by); }
  Result<Descriptor, Refusal> OpenConsole(const std::string& id, guests::ConsoleType type) override {
    const bool is_screen = type == guests::ConsoleType::kScreen;
    if (const auto noted = Note(is_screen ? "screen" : "serial", id, {}); !noted.ok()) return noted.error();
    std::array<int, 2> sockets{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0) return Refusal{901, "no sockets"};
    const std::lock_guard lock(mutex_);
    consoles_.emplace_back(sockets[1]);
    return Descriptor(sockets[0]);
  }
  Result<std::string, Refusal> Screenshot(const std::string& id) override {
    if (const auto noted = Note("screenshot", id, {}); !noted.ok()) return noted.error();
    return screenshot;
  }
  Result<std::size_t, Refusal> Type(const std::string& id, const std::string& text) override {
    if (const auto noted = Note("type " + text, id, {}); !noted.ok()) return noted.error();
    return std::min(text.size(), kTypedPerCall);
  }
  bool Stop(std::chrono::milliseconds) override { return true; }

  // The guest's end of the last console that was opened.
  int console() const {
    const std::lock_guard lock(mutex_);
    return consoles_.empty() ? -1 : consoles_.back().get();
  }

  // "<action> <guest id> <user>/<host>/<request>"
  std::vector<std::string> asked() const {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

  std::optional<Refusal> refused;  // the answer to every action
  std::vector<domain_xml::Difference> pending;
  std::vector<domain_xml::Difference> applied_except;
  guests::Rating rating;
  Json::Value last_edit;
  Json::Value last_creation;
  Json::Value created{Json::objectValue};  // the answer to a creation
  guests::ImportedGuest imported;          // the answer to an import
  bool is_hypervisor_reachable = true;
  std::string hypervisor_version;
  std::string screenshot = "a picture";
  std::optional<guests::RunningGuest> running = guests::RunningGuest{{"192.0.2.7"}, 77, true};

 private:
  Result<void, Refusal> Note(const std::string& action, const std::string& id, const Requester& by) {
    const std::lock_guard lock(mutex_);
    asked_.push_back(action + " " + id + " " + by.user + "/" + by.host_id + "/" + by.request_id);
    return OkUnless(refused);
  }

  mutable std::mutex mutex_;
  std::vector<std::string> asked_;
  std::vector<Descriptor> consoles_;
};

}  // namespace vexa::test
