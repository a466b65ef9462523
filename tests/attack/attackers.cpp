#include "tests/attack/attackers.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "json/readers.h"
#include "tests/attack/flood.h"
#include "tests/attack/guesses.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::chrono::seconds kAnswerTime{60};
constexpr std::size_t kMib = std::size_t{1} << 20;

}  // namespace

Attackers::Attackers(const AttackedHost& host, int places, std::mt19937& random)
    : host_(host), places_(places), random_(random), methods_(MethodsOf(host)) {}

void Attackers::Attack(Time end) {
  while (std::chrono::steady_clock::now() < end) {
    const auto until =
        std::min(end, std::chrono::steady_clock::now() + std::chrono::milliseconds(500 + random_() % 3'000));
    switch (random_() % 6) {
      case 0:
      case 1:
        Occupy(until);
        break;
      case 2:
        Guess(until);
        ++guesses_;
        break;
      case 3:
        CallWithHostileParameters(until);
        break;
      case 4:
        CallWithLongBodies(until);
        ++long_bodies_;
        break;
      default:
        LoginAndOut(until);
        ++logins_;
        break;
    }
  }
}

std::string Attackers::Summary() const {
  return fmt::format(
      "{} floods ({} connections), {} rounds of guesses, {} of hostile calls ({}), {} of long bodies, "
      "{} of logins and logouts",
      floods_, connections_, guesses_, hostile_rounds_, hostile_calls_, long_bodies_, logins_);
}

void Attackers::Occupy(Time until) {
  std::vector<FloodKind> kinds = UserFloods();
  kinds.push_back(HalfHandshakes());
  const std::size_t chosen = random_() % kinds.size();
  const std::uint16_t port = chosen + 1 == kinds.size() ? host_.host_port() : host_.user_port();
  const Flood flood(port, kinds[chosen], places_, random_());
  std::this_thread::sleep_until(until);
  ++floods_;
  connections_ += flood.opened();
}

void Attackers::Guess(Time until) const {
  Guesses guesses(host_.user_port());
  std::this_thread::sleep_until(until);
  guesses.Finish();
}

// As a user without rights, as nobody, and as a host that is not a member.
void Attackers::CallWithHostileParameters(Time until) {
  std::vector<std::jthread> threads;
  std::atomic<int> calls = 0;
  for (const unsigned caller : {0U, 1U, 2U}) {
    threads.emplace_back([this, &calls, caller, until, random = std::mt19937(random_())]() mutable {
      HttpClient client = caller == 0   ? host_.ClientOf("mallory", kAnswerTime)
                          : caller == 1 ? host_.Network(kAnswerTime)
                                        : host_.Host(kStranger, kAnswerTime);
      while (std::chrono::steady_clock::now() < until) {
        const Method& method = methods_[random() % methods_.size()];
        // These would end the session that she needs.
        if (method.path.find("Session/") != std::string::npos) continue;
        const auto names = json::MemberNames(method.parameters);
        (void)client.PostJson(method.path, names.empty() || random() % 5 == 0
                                               ? HostileText(random)
                                               : HostileBody(method, names[random() % names.size()], random));
        ++calls;
      }
    });
  }
  threads.clear();
  ++hostile_rounds_;
  hostile_calls_ += calls;
}

void Attackers::CallWithLongBodies(Time until) const {
  std::string body = R"({"a":[{})";
  while (body.size() < kMib - 10) body += ",{}";
  body += "]}";
  std::vector<std::jthread> threads;
  for (int i = 0; i < 20; ++i) {
    threads.emplace_back([this, until, &body] {
      HttpClient client = host_.ClientOf("mallory", kAnswerTime);
      while (std::chrono::steady_clock::now() < until) (void)client.PostJson(kGetPath, body);
    });
  }
}

void Attackers::LoginAndOut(Time until) const {
  while (std::chrono::steady_clock::now() < until) {
    const std::string token = host_.Login("mallory");
    if (token.empty()) continue;  // strangers have all places
    HttpClient client = host_.Network(kAnswerTime, token);
    (void)client.PostJson("/webapi/VEXA.Core.Session/logout", "");
  }
}

}  // namespace vexa::test
