#include "symforge/src/emit/erase_marker.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace symforge_internal {
namespace {

std::string erased_one_by_one(std::string text, size_t start, std::string_view part) {
  for (size_t at = text.rfind(part); at != std::string::npos && at >= start;
       at = text.rfind(part)) {
    text.erase(at, part.size());
  }
  return text;
}

TEST(EraseMarkerTest, EqualsErasingTheLastOccurrenceAgainAndAgain) {
  constexpr std::string_view kPieces[] = {"__cdecl", "__cd", "ecl", "_", " __ptr64", "__pt", "r64",
                                          " ",       "cl",   "__",  "x", "decl",     "64"};
  std::minstd_rand random(1);
  size_t shortened = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (size_t count = random() % 14; count != 0; --count) {
      text += kPieces[random() % std::size(kPieces)];
    }
    const size_t start = random() % 4 == 0 ? random() % (text.size() + 1) : 0;
    for (const std::string_view part : {"__cdecl", " __ptr64", "__", "_ _"}) {
      std::string result = text;
      eraseFromTheEnd(result, start, part);
      ASSERT_EQ(result, erased_one_by_one(text, start, part)) << text << " from " << start;
      shortened += result.size() < text.size();
    }
  }
  EXPECT_GT(shortened, 10000u);
}

}  // namespace
}  // namespace symforge_internal
