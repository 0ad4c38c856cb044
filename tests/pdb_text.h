// Converts a built PDB inside the process of the test.

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>

#include "builders/bytes.h"
#include "builders/pdb_builder.h"
#include "symforge/src/PDBParser.h"
#include "tests/support/lines.h"
#include "tests/support/memory_file.h"

namespace test_support {

using namespace builders;

// Result of one conversion: the symbol file or the text of the exception, and standard error.
struct Conversion {
  std::string text;
  std::string failure;
  std::string messages;

  // The lines of the text that begin with `keyword`.
  std::string lines(std::string_view keyword) const { return lines_with(text, {keyword}); }
};

enum class Format { kDefault, kStandard };

// Exceptions other than pdb_exception propagate.
inline Conversion convertAlone(const MemoryFile& file, Format format = Format::kDefault,
                               symforge_internal::StandardCounts* counts = nullptr) {
  Conversion result;
  try {
    symforge_internal::TextBuffer text;
    symforge_internal::PDBParser parser(/*with_inlines=*/true);
    parser.load(file.path(), nullptr, nullptr, text);
    symforge_internal::StandardCounts ignored;
    if (format == Format::kStandard) {
      parser.printStandardSymbols(text, counts != nullptr ? *counts : ignored);
    } else {
      parser.printBreakpadSymbols(text, nullptr);
    }
    result.text = text.view();
  } catch (const symforge_internal::pdb_exception& e) {
    result.failure = e.what();
  }
  return result;
}

inline Conversion convertAlone(const std::string& bytes, Format format = Format::kDefault,
                               symforge_internal::StandardCounts* counts = nullptr) {
  return convertAlone(MemoryFile(bytes), format, counts);
}

inline Conversion convert(const std::string& bytes) {
  testing::internal::CaptureStderr();
  Conversion result = convertAlone(bytes);
  result.messages = testing::internal::GetCapturedStderr();
  return result;
}

inline Conversion convert(PdbBuilder& pdb) { return convert(pdb.build().bytes); }

// A PDB with a code section at 0x1000, and the index of a type of functions without parameters.
struct SmallPdb : PdbBuilder {
  explicit SmallPdb(uint32_t page_size = 4096) : PdbBuilder(page_size) {
    section({.name = ".text", .address = 0x1000, .virtual_size = 0x9000, .raw_size = 0x9000});
    type = types.procedure(0x74, types.arguments({}), 0);
  }

  uint32_t type;
};

// FUNC, PUBLIC and line records: everything after the header.
inline std::string records(const Conversion& result) {
  const size_t info = result.text.rfind("INFO SECTION");
  std::string rest = result.text.substr(result.text.find('\n', info) + 1);
  while (rest.starts_with("FILE")) rest.erase(0, rest.find('\n') + 1);
  return result.failure + rest;
}

// The records of a PDB with one module and one file, modified by `change`.
inline std::string recordsOf(
    const std::function<void(SmallPdb&, ModuleBuilder&, uint32_t file)>& change) {
  SmallPdb pdb;
  ModuleBuilder& module = pdb.add_module("a.obj");
  change(pdb, module, module.file(pdb.names.add("a.cc")));
  return records(convert(pdb));
}

}  // namespace test_support
