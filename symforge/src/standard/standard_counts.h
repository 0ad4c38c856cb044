// What a symbol file in the standard format holds, for reports to the user.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace symforge_internal {

struct StandardCounts {
  uint64_t functions = 0;
  uint64_t sharedFunctions = 0;  // of them marked as shared
  uint64_t lines = 0;
  uint64_t inlinedCalls = 0;  // INLINE lines
  uint64_t publics = 0;
  uint64_t files = 0;
  uint64_t origins = 0;
  // What was left out.
  uint64_t unnamedInlinees = 0;  // inline sites whose function has no name
  uint64_t tooDeepCalls = 0;     // inline sites beyond InlineCalls::kMaxDepth
  uint64_t damagedBlocks = 0;    // blocks of lines and inline sites that could not be read whole
  uint64_t damagedModules = 0;   // modules that could not be read whole
  uint64_t modulesWithoutFunctions = 0;
  // What is to be said about the image, without line ends.
  std::vector<std::string> messages;

  // Adds what another part of the file holds, but its messages.
  void add(const StandardCounts& other) {
    for (const auto count :
         {&StandardCounts::functions, &StandardCounts::sharedFunctions, &StandardCounts::lines,
          &StandardCounts::inlinedCalls, &StandardCounts::publics, &StandardCounts::files,
          &StandardCounts::origins, &StandardCounts::unnamedInlinees, &StandardCounts::tooDeepCalls,
          &StandardCounts::damagedBlocks, &StandardCounts::damagedModules,
          &StandardCounts::modulesWithoutFunctions}) {
      this->*count += other.*count;
    }
  }
};

}  // namespace symforge_internal
