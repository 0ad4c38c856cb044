// FunctionPrinter: FUNC, line and PUBLIC records. Line records belong to the FUNC line above them,
// so the order of calls matters.

#pragma once

#include <string>

#include "base/text_buffer.h"
#include "symforge/src/emit/function_record.h"
#include "symforge/src/emit/inline_sites.h"
#include "symforge/src/pdb/section_map.h"
#include "symforge/src/pdb/type_names.h"

namespace symforge_internal {

class FunctionPrinter {
 public:
  // All must outlive this. `sites` null: no I lines.
  FunctionPrinter(const SectionMap& sections, TypeNames& names, InlinePrinter* sites)
      : m_sections(sections), m_typeNames(names), m_sites(sites) {}

  // Appends the records of the functions at `first` ... `end` - 1 that are not dropped. Functions
  // without a type are printed with unchanged names, without parameters and lines. Throws
  // pdb_exception for names that cannot be rendered and damaged inline sites, std::out_of_range for
  // lines of a section that does not exist.
  void printFunctions(const Functions& functions, size_t first, size_t end, TextBuffer& out);
  void printFunctions(const Functions& functions, TextBuffer& out) {
    printFunctions(functions, 0, functions.size(), out);
  }

 private:
  void prefetch(const Functions& functions, size_t i) const;
  void printTypedFunction(const FunctionRecord& func, TextBuffer& out);
  void printLines(const FunctionRecord& func, TextBuffer& out) const;

  const SectionMap& m_sections;
  TypeNames& m_typeNames;
  InlinePrinter* const m_sites;
  std::string m_name;  // buffers of the function that is being printed
  std::string m_parameters;
};

}  // namespace symforge_internal
