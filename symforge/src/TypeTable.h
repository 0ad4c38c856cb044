// Table of the type or id records of a PDB, by type index.

#pragma once

namespace google_breakpad {

class TypeTable {};

}  // namespace google_breakpad
