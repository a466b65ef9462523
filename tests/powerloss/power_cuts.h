// Which power cuts a test tries.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "tests/powerloss/disk_model.h"

namespace vexa::powerloss {

struct PowerCut {
  std::size_t at = 0;  // how many calls had ended
  Loss loss = Loss::kNothing;
  unsigned seed = 0;  // of what is random in it
};

// `count` cuts at random from the call `first` on, half of them just before or after a sync or a reply. In the
// environment, VEXA_POWERLOSS_CUTS is another number, or "all": after each call, with each loss. VEXA_TEST_SEED repeats
// a choice; it is printed.
std::vector<PowerCut> ChooseCuts(const DiskModel& model, std::size_t first, std::size_t count);

// For messages: what is needed to repeat it, and the calls around it.
std::string Describe(const PowerCut& cut, const DiskModel& model);

}  // namespace vexa::powerloss
