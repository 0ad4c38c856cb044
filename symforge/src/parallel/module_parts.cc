#include "symforge/src/parallel/module_parts.h"

#include <cstdint>

namespace symforge_internal {

std::vector<ModulePart> moduleParts(const ModuleStreams& modules, unsigned workers) {
  constexpr uint64_t kPartsOfWorker = 8;  // the last ones to be taken end at different times
  uint64_t all = 0;
  for (const ModuleStream& module : modules) all += module.symbolBytes();
  const uint64_t share = all / (kPartsOfWorker * workers) + 1;
  std::vector<ModulePart> parts;
  uint64_t bytes = 0;
  for (size_t i = 0; i < modules.size(); ++i) {
    if (bytes == 0) parts.push_back({i, i});
    parts.back().end = i + 1;
    bytes += modules[i].symbolBytes() + uint64_t{1};
    if (bytes >= share) bytes = 0;
  }
  return parts;
}

}  // namespace symforge_internal
