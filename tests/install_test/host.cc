// A host of the library: converts a text to a SYMB block, validates it, and looks up an address in
// both. Prints one line for each.

#include <common/symb.h>
#include <common/symforge_version.h>
#include <google_breakpad/processor/basic_source_line_resolver.h>

#include <cstdio>
#include <memory>
#include <string>

#include "../support/code_module.h"

#if __has_include("base/text_buffer.h") || __has_include(<base/text_buffer.h>)
#error "the library's include path holds internal headers"
#endif

// No installed header declares an internal class; for the library see library_names_test.
struct LineWriter {};
struct PageBlock {};
struct SymbStrings {};
struct TextBuffer {};

using test_support::TestModule;

static_assert(SYMFORGE_VERSION >= 15004);

namespace {

constexpr uint64_t kBase = 0x140000000;

const char kText[] =
    "MODULE windows x86_64 497B72F6390A44FC878E5A2D63B6CC4B1 a.pdb\n"
    "FILE 1 a.cc\n"
    "FUNC 1:1010 24 0 main()\n"
    "1010 24 7 1\n";

void print_answer(google_breakpad::BasicSourceLineResolver& resolver, const TestModule& module) {
  google_breakpad::StackFrame frame;
  frame.instruction = kBase + 0x1014;
  frame.module = &module;
  resolver.FillSourceLineInfo(&frame);
  std::printf("%s %s:%d\n", frame.function_name.c_str(), frame.source_file_name.c_str(),
              frame.source_line);
}

}  // namespace

int main() {
  const TestModule module(kBase);
  google_breakpad::BasicSourceLineResolver text_resolver;
  if (!text_resolver.LoadModuleUsingMapBuffer(&module, kText)) return 1;
  print_answer(text_resolver, module);

  char* image = nullptr;
  size_t size = 0;
  if (!symb_write(kText, &image, &size)) return 1;
  const std::unique_ptr<char[]> block(image);
  if (!symb_validate(reinterpret_cast<uint64_t>(image), size)) return 1;
  google_breakpad::BasicSourceLineResolver symb_resolver;
  if (!symb_resolver.LoadModuleUsingMemoryBuffer(&module, image, size)) return 1;
  print_answer(symb_resolver, module);
  return 0;
}
