// LeafTraits: what is kept of each kind of type record (leaf), and how it is printed. The one table
// of leaves: TypeTable decodes by it, TypeNames renders by it.
//
// To add a leaf: its number and its record in codeview.h, a row here. Only a leaf with a text of a
// form that there is not yet also needs a LeafText and an operation of TypeNames.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "symforge/src/pdb/codeview.h"

namespace symforge_internal {

// The forms of a record's text.
enum class LeafText : uint8_t {
  kNone,            // the leaf is unknown: it is not kept
  kName,            // its name
  kArguments,       // "(int,char)"
  kProcedure,       // its argument list
  kMemberFunction,  // its argument list
  kModifier,        // the type and " const"
  kPointer,         // the type and " *"
  kIndex,           // the type that it refers to
  kArray,           // "int[40]"
  kFunctionId,      // its name and the argument list
  kNumber,          // the number
};

struct LeafTraits {
  static constexpr uint8_t kNoName = 0xFF;

  uint16_t leaf = 0;
  LeafText text = LeafText::kNone;
  uint8_t data = 0;         // bytes of the fixed part; 0 where the name alone is of use
  uint8_t name = kNoName;   // offset of the name in the leaf's fields
  bool isFunction = false;  // whether the text is that of a function
  // Kept for the standard format alone, where FunctionNames makes its text.
  bool standardOnly = false;

  bool kept() const { return text != LeafText::kNone; }
  bool hasName() const { return name != kNoName; }
  // Whether the size of the type precedes its name.
  bool hasSize() const {
    return leaf == LEAF::LF_CLASS || leaf == LEAF::LF_STRUCTURE || leaf == LEAF::LF_UNION;
  }
};

// The names of classes and unions are looked for after the short form of the size field. In the
// default format that is so also when the record uses a longer one: such a name begins inside the
// size. An argument list's indices and
// a number follow the fixed part.
inline constexpr LeafTraits kLeafTraits[] = {
    {},  // of every leaf that has no row
    {LEAF::LF_MODIFIER, LeafText::kModifier, sizeof(LeafModifier)},
    {LEAF::LF_POINTER, LeafText::kPointer, sizeof(LeafPointer)},
    {LEAF::LF_PROCEDURE, LeafText::kProcedure, sizeof(LeafProc), LeafTraits::kNoName, true},
    {LEAF::LF_MFUNCTION, LeafText::kMemberFunction, sizeof(LeafMFunc), LeafTraits::kNoName, true},
    {LEAF::LF_ARGLIST, LeafText::kArguments, sizeof(LeafArgList)},
    {LEAF::LF_INDEX, LeafText::kIndex, sizeof(LeafIndex)},
    {LEAF::LF_ARRAY, LeafText::kArray, sizeof(LeafArray)},
    {LEAF::LF_CLASS, LeafText::kName, 0, sizeof(LeafClass)},
    {LEAF::LF_STRUCTURE, LeafText::kName, 0, sizeof(LeafClass)},
    {LEAF::LF_UNION, LeafText::kName, 0, sizeof(LeafUnion)},
    {LEAF::LF_ENUM, LeafText::kName, 0, sizeof(LeafEnum)},
    {LEAF::LF_ALIAS, LeafText::kName, 0, sizeof(LeafAlias)},
    {LEAF::LF_FUNC_ID, LeafText::kFunctionId, sizeof(LeafFuncID), sizeof(LeafFuncID), true},
    {LEAF::LF_MFUNC_ID, LeafText::kName, sizeof(LeafMFuncID), sizeof(LeafMFuncID), true, true},
    {LEAF::LF_SUBSTR_LIST, LeafText::kArguments, sizeof(LeafArgList), LeafTraits::kNoName, false,
     true},
    {LEAF::LF_STRING_ID, LeafText::kName, sizeof(LeafStringID), sizeof(LeafStringID), false, true},
    {LEAF::LF_CHAR, LeafText::kNumber},  // and all numbers up to LF_LAST_NUMERIC
};

// The rows by leaf number: one byte a leaf.
class LeafRows {
 public:
  constexpr LeafRows() {
    for (size_t row = 1; row < std::size(kLeafTraits); ++row) {
      const uint16_t leaf = kLeafTraits[row].leaf;
      if (leaf != LEAF::LF_CHAR) m_rows[leaf - kFirst] = static_cast<uint8_t>(row);
    }
  }

  constexpr const LeafTraits& operator[](uint16_t leaf) const {
    if (leaf >= kFirst && leaf <= kLast) return kLeafTraits[m_rows[leaf - kFirst]];
    const bool number = leaf >= LEAF::LF_CHAR && leaf <= LEAF::LF_LAST_NUMERIC;
    return kLeafTraits[number ? std::size(kLeafTraits) - 1 : 0];
  }

 private:
  static constexpr uint16_t kFirst = LEAF::LF_MODIFIER;
  static constexpr uint16_t kLast = LEAF::LF_STRING_ID;

  std::array<uint8_t, kLast - kFirst + 1> m_rows = {};
};

// The row of a leaf; the one of no leaf when there is none.
inline const LeafTraits& traitsOf(uint16_t leaf) {
  static constexpr LeafRows kIndex;
  return kIndex[leaf];
}

}  // namespace symforge_internal
