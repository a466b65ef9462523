#include "tests/attack/workers.h"

#include <fmt/format.h>

#include <chrono>

namespace vexa::test {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kAnswerTime{60};

}  // namespace

Workers::Workers(const AttackedHost& host) : host_(host) {
  for (int i = 0; i < kEditors; ++i) Begin([this, i] { Edit(i); });
  for (int i = 0; i < kPowered; ++i) Begin([this, i] { Power(kEditors * kGuestsOfEditor + i); });
  Begin([this] { Read(); });
  Begin([this] { Ask(); });
}

void Workers::Finish() {
  is_over_ = true;
  threads_.clear();
}

std::vector<std::string> Workers::failures() const {
  const MutexLock lock(mutex_);
  return failures_;
}

std::map<int, std::string> Workers::acknowledged() const {
  const MutexLock lock(mutex_);
  return acknowledged_;
}

void Workers::Expect(bool good, const std::string& what) {
  if (good) {
    ++done_;
    return;
  }
  const MutexLock lock(mutex_);
  if (failures_.size() < 20) failures_.push_back(what);
}

void Workers::Edit(int editor) {
  HttpClient client = host_.ClientOf("admin", kAnswerTime);
  for (int i = 0; !is_over_; ++i) {
    const int guest = editor * kGuestsOfEditor + i % kGuestsOfEditor;
    const std::string text = fmt::format("edit {}", i);
    const int code = AttackedHost::Describe(client, guest, text);
    Expect(code == 0, fmt::format("edit {} of guest {}: {}", i, guest, code));
    if (code != 0) continue;
    {
      const MutexLock lock(mutex_);
      acknowledged_[guest] = text;
    }
    const auto got = AttackedHost::DescriptionOf(client, guest);
    Expect(got == text, fmt::format("edit {} of guest {} reads as '{}'", i, guest, got.value_or("no answer")));
    std::this_thread::sleep_for(milliseconds(5));
  }
}

void Workers::Power(int guest) {
  for (int i = 0; !is_over_; ++i) {
    HttpClient root = host_.Root(kAnswerTime);
    const std::string action = i % 2 == 0 ? "poweron" : "poweroff";
    const HttpReply reply = root.PostJson(
        kPowerPath, fmt::format(R"({{"guest_id":"{}","action":"{}"}})", AttackedHost::GuestId(guest), action));
    Expect(reply.status == 200, fmt::format("{} of guest {}: {}{}", action, guest, reply.transport_error, reply.body));
    const HttpReply status = root.PostJson("/webapi/VEXA.Virtualization.Guest/status",
                                           fmt::format(R"({{"guest_id":"{}"}})", AttackedHost::GuestId(guest)));
    const bool runs = status.body.find("running") != std::string::npos;
    Expect(runs == (i % 2 == 0), fmt::format("guest {} after {}: {}", guest, action, status.body));
    std::this_thread::sleep_for(milliseconds(20));
  }
}

void Workers::Read() {
  HttpClient grace = host_.ClientOf("grace", kAnswerTime);
  while (!is_over_) {
    Expect(AttackedHost::Gets(grace), "the user with a grant does not get the guest");
    const HttpReply list = grace.PostJson("/webapi/VEXA.Virtualization.Guest/list", "{}");
    const bool has_one = list.body.find(AttackedHost::GuestId(0)) != std::string::npos &&
                         list.body.find(AttackedHost::GuestId(1)) == std::string::npos;
    Expect(list.status == 200 && has_one, "the list of the user with a grant: " + list.transport_error + list.body);
    std::this_thread::sleep_for(milliseconds(5));
  }
}

void Workers::Ask() {
  HttpClient member = host_.Host(kMember, kAnswerTime);
  while (!is_over_) {
    const HttpReply reply = member.PostJson("/webapi/VEXA.Core.System/info", "{}");
    Expect(reply.status == 200, "a host's call: " + reply.transport_error + reply.body);
    std::this_thread::sleep_for(milliseconds(10));
  }
}

}  // namespace vexa::test
