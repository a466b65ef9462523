#include "host/base/nearest_name.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <utility>
#include <vector>

namespace vexa {
namespace {

bool AreEqual(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

std::size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j < row.size(); ++j) {
      const std::size_t replaced = diagonal + (AreEqual(a[i - 1], b[j - 1]) ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
    }
  }
  return row.back();
}

// Whether the word is an abbreviation of the name, of at least three characters.
bool IsBeginning(std::string_view word, std::string_view name) {
  return word.size() >= 3 && word.size() < name.size() && std::equal(word.begin(), word.end(), name.begin(), AreEqual);
}

}  // namespace

std::string_view NearestName(std::string_view word, std::span<const std::string_view> known) {
  constexpr std::size_t kMaxWordSize = 64;
  if (word.empty() || word.size() > kMaxWordSize) return {};
  std::string_view nearest;
  std::size_t smallest = 0;
  for (const std::string_view name : known) {
    if (name.empty()) continue;
    const std::size_t distance = IsBeginning(word, name) ? 1 : EditDistance(word, name);
    if (distance > std::max<std::size_t>(1, name.size() / 2)) continue;
    if (nearest.empty() || distance < smallest) {
      nearest = name;
      smallest = distance;
    }
  }
  return nearest;
}

}  // namespace vexa
