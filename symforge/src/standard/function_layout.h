// FunctionLayout: selects the functions and public symbols of the symbol file and assigns to each
// the range of code that it covers. The ranges are sorted by address and do not overlap.
//
// Several functions can have one address, because linkers merge functions of equal code. One of
// them is chosen:
//   1. those without lines are dropped if another one has lines;
//   2. of the rest, the one with the lowest type index;
//   3. of several with that index, the first in the PDB.
// It is marked as shared (`m`) if a function with another name has the same address. A function
// that starts within the range of another one ends that range.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "symforge/src/emit/param_sizes.h"
#include "symforge/src/pdb/frame_tables.h"
#include "symforge/src/pdb/public_functions.h"
#include "symforge/src/standard/function_collector.h"
#include "symforge/src/standard/function_names.h"

namespace symforge_internal {

// A FUNC line to be. RVAs are those of the final image.
struct PlacedFunction {
  uint32_t function = 0;  // position in FunctionCollector::functions()
  uint32_t rva = 0;
  uint32_t size = 0;       // bytes
  uint32_t linkedRva = 0;  // of this code in the image as it was linked
  uint32_t linkedSize = 0;
  uint32_t paramSize = 0;
  uint32_t block = 0;  // which of several blocks of lines that begin at linkedRva is its own
  uint16_t chunk = 0;  // 0: the function itself; n: the n-th part that was separated from it
  bool shared = false;
};

// A PUBLIC line to be: a public function, or else a thunk.
struct PlacedPublic {
  const char* name = nullptr;
  uint32_t rva = 0;
  uint32_t paramSize = 0;
  bool shared = false;
};

class FunctionLayout {
 public:
  // Parts beyond this number that were separated from one function show no inlined calls.
  static constexpr uint16_t kMaxChunks = 64;

  // All must outlive this.
  FunctionLayout(const FunctionCollector& collector, const SectionMap& sections,
                 const FrameTables& frames, PublicFunctions& publics, FunctionNames& names)
      : m_collector(collector),
        m_lineBlocks(collector),
        m_sections(sections),
        m_frames(frames),
        m_publics(publics),
        m_names(names) {}

  // To be called once. Throws what FunctionNames throws.
  void place();

  // Ascending, without overlap.
  const std::vector<PlacedFunction>& functions() const { return m_functions; }
  // Ascending.
  const std::vector<PlacedPublic>& publics() const { return m_placedPublics; }

 private:
  // What functions are ordered by.
  struct Key {
    uint32_t rva = 0;
    uint32_t typeIndex = 0;
    uint32_t function = 0;
  };
  using Run = std::span<const Key>;  // of one RVA

  void fold();
  void prefetch(std::span<const Key> keys, size_t i) const;
  void placeRun(Run run);
  bool choose(Run run, PlacedFunction& placed);
  size_t blocksAt(uint32_t function);
  bool isShared(Run run, uint32_t shown);
  bool sameName(const CollectedFunction& a, const CollectedFunction& b);
  void addSeparatedCode();
  void placeInFinalImage();
  void placePublics();
  uint32_t paramSize(const CollectedFunction& function, uint32_t rva);

  const FunctionCollector& m_collector;
  LineBlockFinder m_lineBlocks;
  const SectionMap& m_sections;
  const FrameTables& m_frames;
  PublicFunctions& m_publics;
  FunctionNames& m_names;
  std::vector<PlacedFunction> m_functions;
  std::vector<PlacedPublic> m_placedPublics;
  std::string m_oneName;
  std::string m_otherName;
};

}  // namespace symforge_internal
