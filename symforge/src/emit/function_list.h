// The list of all functions: its order, records at one address, public functions that join it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "symforge/src/emit/function_record.h"
#include "symforge/src/pdb/public_functions.h"

namespace symforge_internal {

// Sorts by FunctionRecord::operator<. Records with equal keys are in the order in which std::sort
// leaves this sequence; that order is visible in the output.
void sortFunctions(Functions& functions);

// The same for a list in parts: replaces `functions` by all their records, sorted as if they were
// one list. Takes the records from `parts`. Room for `more` further ones is reserved.
void joinSorted(std::span<Functions> parts, size_t more, Functions& functions);

// Drops all but one of the records at each address of a sorted list: the first with lines is kept,
// or else the first.
void dropDuplicates(Functions& functions);

// Adds the public functions that no function covers to a sorted list whose duplicates were dropped,
// at their places. Records that are dropped can be removed. The names are moved from `globals`.
void mergeGlobals(Functions& functions, PublicFunctions& globals);

// Finds functions by their start. The list must be sorted, not empty at a search, and its records
// must keep section and RVA.
class FunctionIndex {
 public:
  explicit FunctionIndex(const Functions& functions);

  // Position of the first function at or after an address, or of the last function of all.
  size_t lowerBound(uint32_t segment, uint32_t rva);

 private:
  std::vector<uint64_t> m_starts;  // segment above RVA
  size_t m_last = 0;               // the previous result: blocks of lines are mostly in order
};

}  // namespace symforge_internal
