#include "tests/powerloss/power_cuts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace vexa::powerloss {
namespace {

std::string ToText(const Call& call) {
  constexpr const char* kKinds[] = {"mkdir", "create", "unnamed", "link", "rename", "remove", "write",      "length",
                                    "grow",  "mode",   "sync",    "map",  "start",  "reply",  "unsupported"};
  std::string text = fmt::format("{} {}", kKinds[static_cast<std::size_t>(call.kind)], call.object);
  if (!call.old_name.empty()) text += fmt::format(" '{}' to", call.old_name);
  if (!call.name.empty()) text += fmt::format(" '{}' in {}", call.name, call.folder);
  if (call.kind == CallKind::kWrite) text += fmt::format(" {} bytes at {}", call.bytes.size(), call.offset);
  if (call.is_data_sync) text += call.kind == CallKind::kSync ? " (data)" : " (synced)";
  return text;
}

}  // namespace

std::vector<PowerCut> ChooseCuts(const DiskModel& model, std::size_t first, std::size_t count) {
  const char* const own_seed = std::getenv("VEXA_TEST_SEED");
  const unsigned seed = own_seed == nullptr ? std::random_device{}() : static_cast<unsigned>(std::stoul(own_seed));
  const char* const own_count = std::getenv("VEXA_POWERLOSS_CUTS");
  const bool is_all = own_count != nullptr && std::string(own_count) == "all";
  if (own_count != nullptr && !is_all) count = std::stoul(own_count);
  const std::size_t end = model.calls().size();
  std::mt19937 random(seed);
  std::vector<PowerCut> cuts;
  for (std::size_t at = first; is_all && at <= end; ++at) {
    for (const Loss loss : kAllLosses) cuts.push_back({at, loss, static_cast<unsigned>(random())});
  }
  std::vector<std::size_t> near;
  for (std::size_t at = first; at < end; ++at) {
    const CallKind kind = model.calls()[at].kind;
    // The first of several replies is the one that something has been done for.
    const bool is_reply = kind == CallKind::kReply && model.calls()[at - 1].kind != CallKind::kReply;
    if (kind == CallKind::kSync || is_reply) near.insert(near.end(), {at, at + 1});
  }
  while (!is_all && cuts.size() < count) {
    const bool is_near = !near.empty() && random() % 2 == 0;
    const std::size_t at = is_near ? near[random() % near.size()] : first + random() % (end - first + 1);
    cuts.push_back({at, kAllLosses[random() % std::size(kAllLosses)], static_cast<unsigned>(random())});
  }
  fmt::print("VEXA_TEST_SEED={}: {} cuts in {} calls\n", seed, cuts.size(), end - first);
  return cuts;
}

std::string Describe(const PowerCut& cut, const DiskModel& model) {
  std::string text = fmt::format("cut after {} of {} calls, lost: {}, seed {}", cut.at, model.calls().size(),
                                 ToString(cut.loss), cut.seed);
  constexpr std::size_t kAround = 12;
  const std::size_t first = std::max(model.start(), cut.at - std::min(cut.at, kAround));
  for (std::size_t i = first; i < std::min(cut.at + 3, model.calls().size()); ++i) {
    text += fmt::format("\n  {}{} {}", i == cut.at ? "--> " : "", i, ToText(model.calls()[i]));
  }
  return text;
}

}  // namespace vexa::powerloss
