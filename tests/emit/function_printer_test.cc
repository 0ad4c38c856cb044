// FUNC records.

#include "symforge/src/emit/function_printer.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace symforge_internal {
namespace {

TEST(FunctionPrinterTest, CleansTypedNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"int __cdecl f", "int  f"},
      {"char * __ptr64 g", "char * g"},
      {"__ptr64", "__ptr64"},
      {"a __ptr64 __ptr64__cdecl", "a"},
      {"__cd__cdeclecl", ""},
      {"__cde __ptr64cl x", " x"},
      {"__stdcall __cdec", "__stdcall __cdec"},
  };
  const SectionMap sections;
  const TypeTable types;
  TypeNames names(types, types);
  for (const auto& [name, printed] : cases) {
    Functions functions(1);
    functions[0].name = DataPtr<char>(name, false);
    functions[0].segment = 1;
    functions[0].rva = 0x1000;
    functions[0].length = 1;
    functions[0].typeIndex = 3;
    TextBuffer out;
    FunctionPrinter(sections, names, nullptr).printFunctions(functions, out);
    EXPECT_EQ(out.view(), std::string("FUNC 1:1000 1 0 ") + printed + "void\n");
  }
}

}  // namespace
}  // namespace symforge_internal
