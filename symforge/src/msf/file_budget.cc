#include "symforge/src/msf/file_budget.h"

namespace symforge_internal {

FileBudget::FileBudget(uint64_t fileBytes)
    : visited(limits::kVisitedBytes.of(fileBytes), "The file names the same data again and again"),
      copied(limits::kCopiedBytes.of(fileBytes), "The file scatters too much of its data"),
      symbols(limits::kSymbolBytes.of(fileBytes), "The modules have more symbols than the file"),
      functions(limits::kFunctions.of(fileBytes), "Too many functions for the file's size"),
      fileChecksums(limits::kFileChecksums.of(fileBytes),
                    "Too many source files for the file's size"),
      typeVisits(limits::kTypeVisits.of(fileBytes), "Too many types for the file's size"),
      typeText(limits::kTypeText.of(fileBytes), "The names of types are too long"),
      movedParts(limits::kMovedParts.of(fileBytes), "Lines are moved in too many parts") {}

}  // namespace symforge_internal
