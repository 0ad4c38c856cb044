// Packed ARM64 unwind entries: one word that stands for a canonical prolog and epilog.

#pragma once

#include "symforge/src/pe/arm64_unwind_codes.h"
#include "symforge/src/pe/arm64_unwind_records.h"

namespace symforge_internal {

// The prolog and the epilog that a packed entry describes, as codes would. Those of a fragment have
// effects but no instructions. kMalformed: more registers than there are, or a frame that is too
// small for what is saved in it. Throws std::bad_alloc.
Arm64Status expandArm64Packed(Arm64PackedUnwind packed, bool is_fragment, Arm64Sequence& prolog,
                              Arm64Sequence& epilog);

}  // namespace symforge_internal
