// FunctionNames: names of functions and of inlined functions in the symbol file: qualified, and
// with the types of the parameters.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "symforge/src/pdb/type_names.h"
#include "symforge/src/pdb/type_table.h"

namespace symforge_internal {

class FunctionNames {
 public:
  // The tables must be those of the standard dialect and outlive this.
  FunctionNames(const TypeTable& types, const TypeTable& ids)
      : m_types(types), m_ids(ids), m_typeNames(types, ids, TypeDialect::kStandard) {}

  // Appends the name of a procedure symbol of type `type` (0: none), which is qualified already.
  // What only the Windows compiler says is removed from the name of a typed one. Throws
  // pdb_exception like TypeNames.
  void appendFunction(std::string_view name, uint32_t type, std::string& output);

  // Asks for the memory that appendFunction() will look at: some functions ahead for the index,
  // then for the record.
  void prefetchIndex(uint32_t type) const { m_types.prefetchIndex(type); }
  void prefetchRecord(uint32_t type) const { m_types.prefetchRecord(type); }

  // Appends the name of an item of the id records. False, with `output` unchanged, when it is no
  // function or has no name. Throws pdb_exception like TypeNames.
  bool appendInlinee(uint32_t inlinee, std::string& output);

 private:
  void appendFunctionId(const TypeInfo& info, std::string& output);
  void appendMemberFunctionId(const TypeInfo& info, std::string& output);
  void appendScope(uint32_t scope, std::string& output);
  void appendString(uint32_t id, std::string& output, uint32_t depth);
  void appendType(uint32_t type, std::string& output);
  void appendText(const char* text, std::string& output);

  const TypeTable& m_types;
  const TypeTable& m_ids;
  TypeNames m_typeNames;
  uint32_t m_stringParts = 0;  // of the scope that is being appended
};

// The last component of a qualified name, with its template arguments: "c<d::e>" of
// "a::b::c<d::e>".
std::string_view lastNameComponent(std::string_view name);

}  // namespace symforge_internal
