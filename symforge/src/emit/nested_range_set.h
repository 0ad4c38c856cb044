// The nesting of inline sites' ranges: RVAs of 32 bits.

#pragma once

#include <cstdint>

#include "base/range_nesting.h"

namespace symforge_internal {

using NestedRangeSet = RangeNesting<uint32_t>;
using AddressRange = NestedRangeSet::Range;

}  // namespace symforge_internal
