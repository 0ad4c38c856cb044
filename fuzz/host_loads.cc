// A host with an untrusted symbol file, text or SYMB: loads it by name and from a string, runs
// lookups and unloads it. Everything must stay within its limits.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/symb_safety.h"
#include "fuzz/addresses.h"
#include "fuzz/harness.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "tests/support/code_module.h"
#include "tests/support/memory_file.h"
#include "tests/support/module_lookups.h"

using fuzzing::require;
using google_breakpad::BasicSourceLineResolver;
using google_breakpad::StackFrame;

namespace {

constexpr size_t kMostWords = 100;

const test_support::TestModule kHostModule(0);

// Repeats every eighth text until it has a realistic size, at which excessive cost shows.
std::string grown(std::string text) {
  if (text.empty() || text.size() % 8 != 0) return text;
  const std::string once = text;
  while (text.size() < fuzzing::kMebibyte) text += once;
  return text;
}

void ask(BasicSourceLineResolver& resolver, uint64_t address) {
  constexpr double kLookupSeconds = 0.010;
  constexpr size_t kLookupBytes = 16 * fuzzing::kMebibyte;
  StackFrame frame;
  frame.module = &kHostModule;
  frame.instruction = address;
  fuzzing::bounded("a lookup", kLookupSeconds, kLookupBytes,
                   [&] { resolver.FillSourceLineInfo(&frame); });
  fuzzing::bounded("a STACK WIN lookup", kLookupSeconds, kLookupBytes,
                   [&] { delete resolver.FindWindowsFrameInfo(&frame); });
  fuzzing::bounded("a STACK CFI lookup", kLookupSeconds, kLookupBytes,
                   [&] { delete resolver.FindCFIFrameInfo(&frame); });
}

// LoadModule makes an index of the tables that are in order.
void compare_routes(const std::string& block, const std::vector<uint64_t>& addresses) {
  const test_support::ModuleLookups plain(block, false);
  const test_support::ModuleLookups indexed(block, true);
  const std::vector<std::string> array = plain.array(addresses);
  const std::vector<std::string> indexed_array = indexed.array(addresses);
  for (size_t i = 0; i < addresses.size(); ++i) {
    const std::string frame = plain.one(addresses[i]);
    require(array[i] == frame && indexed_array[i] == frame, "one frame from arrays");
    require(indexed.one(addresses[i]) == frame, "one frame by the index");
    require(indexed.rules(addresses[i]) == plain.rules(addresses[i]), "one set of rules");
  }
}

}  // namespace

FUZZ_TARGET(host_loads)(const uint8_t* data, size_t size) {
  std::string content(reinterpret_cast<const char*>(data), size);
  const bool is_symb = content.starts_with("SYMB");
  if (!is_symb) content = grown(std::move(content));
  const test_support::MemoryFile file(content);
  const bool expected =
      !is_symb || symforge_internal::symb_check_safety(content.data(), content.size());

  BasicSourceLineResolver resolver;
  bool loaded = false;
  fuzzing::bounded("a load", 0.1 + 2e-6 * static_cast<double>(content.size()),
                   64 * fuzzing::kMebibyte + 6 * content.size(),
                   [&] { loaded = resolver.LoadModule(&kHostModule, file.path()); });
  require(loaded == expected, "text and safe blocks load");
  require(resolver.HasModule(&kHostModule) == loaded, "what is loaded is there");
  std::vector<uint64_t> addresses =
      is_symb ? fuzzing::words_in(content, kMostWords) : fuzzing::addresses_in(content);
  addresses.resize(std::min(addresses.size(), kMostWords));
  for (const uint64_t address : addresses) ask(resolver, address);
  if (is_symb && loaded) compare_routes(content, addresses);
  const bool corrupt = resolver.IsModuleCorrupt(&kHostModule);
  resolver.UnloadModule(&kHostModule);
  require(!resolver.HasModule(&kHostModule) && !resolver.IsModuleCorrupt(&kHostModule),
          "what is unloaded is gone");

  require(resolver.LoadModuleUsingMapBuffer(&kHostModule, content) == expected, "one answer");
  require(resolver.IsModuleCorrupt(&kHostModule) == corrupt, "one verdict on the lines");
  return 0;
}
