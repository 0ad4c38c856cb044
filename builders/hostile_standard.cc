// The hostile files that cost most with --standard.

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "builders/hostile.h"
#include "builders/hostile_parts.h"
#include "builders/pdb_builder.h"
#include "builders/symb_builder.h"

namespace builders {

namespace {

constexpr size_t kMostAnnotations = 60000;  // bytes of one inline site

// A module with one function over the whole section, a line, and the inlinee 0x1000.
ModuleBuilder& add_function(PdbBuilder& pdb) {
  const uint32_t type = pdb.types.procedure(3, pdb.types.arguments({}), 0);
  pdb.ids.function_id("i", type);
  ModuleBuilder& module = pdb.add_module("m");
  const uint32_t file = module.file(pdb.names.add("a.cc"));
  module.lines(1, 0, kSectionBytes, file, {{0, 1}});
  module.inlinees({{0x1000, file, 1}});
  module.proc({.name = "f", .offset = 0, .length = kSectionBytes, .type = type});
  return module;
}

// As many rows as bytes allow: each step of the code begins one.
Annotations steps(size_t bytes) {
  Annotations annotations;
  for (size_t i = 0; i < bytes / 2; ++i) annotations.op(3, 1);
  return annotations;
}

std::string inline_rows(size_t size) {
  PdbBuilder pdb = with_section();
  ModuleBuilder& module = add_function(pdb);
  const Annotations annotations = steps(kMostAnnotations);
  for (uint32_t i = 0; i < count_of(size, kMostAnnotations); ++i) {
    module.inline_site(0x1000, annotations).inline_site_end();
  }
  return built(pdb);
}

// Nested calls, of which the outermost has gaps that cut all others.
std::string cut_calls(size_t size) {
  PdbBuilder pdb = with_section();
  ModuleBuilder& module = add_function(pdb);
  Annotations gaps;
  for (size_t i = 0; i < std::min(size / 2, kMostAnnotations) / 4; ++i) gaps.op(3, 2).op(4, 1);
  module.inline_site(0x1000, gaps);
  for (uint32_t i = 0; i < 255; ++i) {
    module.inline_site(0x1000, Annotations().op(3, 0).op(4, 0xFFFFFF));
  }
  for (uint32_t i = 0; i < 256; ++i) module.inline_site_end();
  for (uint32_t i = 0; i < count_of(size / 2, kMostAnnotations); ++i) {
    module.inline_site(0x1000, gaps);
    for (uint32_t j = 0; j < 255; ++j) {
      module.inline_site(0x1000, Annotations().op(3, 0).op(4, 0xFFFFFF));
    }
    for (uint32_t j = 0; j < 256; ++j) module.inline_site_end();
  }
  return built(pdb);
}

// Calls over the whole function, whose code was moved in small pieces.
std::string moved_calls(size_t size) {
  PdbBuilder pdb = with_section();
  pdb.original_section({.name = ".text", .address = 0x1000, .virtual_size = kSectionBytes});
  ModuleBuilder& module = add_function(pdb);
  for (uint32_t i = 0; i < count_of(size / 2, 24); ++i) {
    module.inline_site(0x1000, Annotations().op(3, 0).op(4, 0xFFFFFF)).inline_site_end();
  }
  std::vector<std::pair<uint32_t, uint32_t>> pieces;
  for (uint32_t i = 0; i < count_of(size / 2, 8); ++i) {
    pieces.emplace_back(0x1000 + 2 * i, 0x1000 + 2 * (i ^ 1));
  }
  pdb.omap_from(pieces);
  return built(pdb);
}

// Lines of files whose names all end at one distant NUL.
std::string long_file_names(size_t size) {
  PdbBuilder pdb = with_section();
  const uint32_t count = count_of(size / 2, 32);
  std::string names(size / 2, 'n');
  const uint32_t first = pdb.names.add(names);
  for (uint32_t i = 1; i < count; ++i) pdb.names.add("");
  ModuleBuilder& module = pdb.add_module("m");
  module.proc({.name = "f", .offset = 0, .length = kSectionBytes});
  std::vector<std::pair<uint32_t, std::vector<Line>>> blocks;
  for (uint32_t i = 0; i < count; ++i) {
    // (not a list of one line: g++ 14 warns of an overflow that does not exist)
    blocks.emplace_back(module.file(first + i), std::vector<Line>(1, Line{i, 1}));
  }
  module.lines(1, 0, kSectionBytes, blocks);
  pdb.lay_out();
  // The table of names: every one of the offsets has a name.
  Bytes stream;
  stream.u32(0xEFFEEFFE).u32(1).u32(static_cast<uint32_t>(names.size()) + 2);
  stream.u8(0).zstr(names).u32(count);
  for (uint32_t i = 0; i < count; ++i) stream.u32(first + i);
  pdb.msf.set_stream(5, stream.u32(count).str());
  return built(pdb);
}

// Functions in a scope made of one long string again and again.
std::string repeated_scope(size_t size) {
  PdbBuilder pdb = with_section();
  const uint32_t type = pdb.types.procedure(3, pdb.types.arguments({}), 0);
  const uint32_t text = pdb.ids.string_id(std::string(std::min<size_t>(size / 4, 60000), 's'));
  const uint32_t list = pdb.ids.string_list(std::vector<uint32_t>(4000, text));
  const uint32_t scope = pdb.ids.string_id("n", list);
  ModuleBuilder& module = pdb.add_module("m");
  const uint32_t file = module.file(pdb.names.add("a.cc"));
  module.lines(1, 0, kSectionBytes, file, {{0, 1}});
  module.proc({.name = "f", .offset = 0, .length = kSectionBytes, .type = type});
  for (uint32_t i = 0; i < count_of(size / 2, 48); ++i) {
    const uint32_t id = pdb.ids.function_id("i", type, scope);
    module.inline_site(id, Annotations().op(3, i).op(4, 1)).inline_site_end();
  }
  return built(pdb);
}

// Separated parts of a function in records of two bytes, each of which is read into the next ones.
std::string dense_parts(size_t size) {
  PdbBuilder pdb = with_section();
  // What these records name as the section of their function.
  for (uint32_t i = 1; i < kSepCode; ++i) pdb.section({.name = "s", .address = 0x1000});
  Bytes symbols;
  for (uint32_t i = 0; i < count_of(size, 4); ++i) symbols.u16(2).u16(kSepCode);
  pdb.add_module("m").proc({.name = "f", .length = 16}).raw_symbols(symbols.fill(64).str());
  return built(pdb);
}

// A function of a SYMB file whose lines cut its calls.
std::string symb_cut_calls(size_t size) {
  SymbModel model;
  model.files.emplace_back(1, "a.cc");
  SymbFunction function = {0, 0x10000000, 0, "f", {}, {}};
  const uint32_t lines = count_of(size / 2, 16);
  for (uint32_t i = 0; i < lines; ++i)
    function.lines.push_back({2 * i, 1, 1, static_cast<int32_t>(i)});
  for (uint32_t i = 0; i < count_of(size / 2, 32); ++i) {
    function.sites.push_back({0, 0x10000000 - i, 1, 1, i, "i"});
  }
  model.functions.push_back(std::move(function));
  return model.bytes();
}

// Functions of a SYMB file that share one table of lines.
std::string symb_shared_lines(size_t size) {
  SymbModel model;
  model.files.emplace_back(1, "a.cc");
  const uint32_t count = count_of(size / 2, 64);
  for (uint32_t i = 0; i < count; ++i) {
    model.functions.push_back({16 * i, 16, 0, "f", {{16 * i, 1, 1, 1}}, {}});
  }
  for (uint32_t i = 0; i < count_of(size / 2, 16); ++i) {
    model.functions[0].lines.push_back({i, 1, 1, 1});
  }
  std::string bytes = model.bytes();
  constexpr size_t kRecord = 48;
  constexpr size_t kLineCount = 20;  // and the reference to the lines
  const size_t first = get_u64(bytes, kSymbFunctions);
  for (size_t i = 1; i < count; ++i) {
    put_u32(bytes, first + i * kRecord + kLineCount, get_u32(bytes, first + kLineCount));
    put_u64(bytes, first + i * kRecord + kLineCount + 4, get_u64(bytes, first + kLineCount + 4));
  }
  return bytes;
}

}  // namespace

std::vector<HostileFile> hostile_standard_files(size_t size) {
  return {
      {"inline_rows.pdb", inline_rows(size)},
      {"cut_calls.pdb", cut_calls(size)},
      {"moved_calls.pdb", moved_calls(size)},
      {"long_file_names.pdb", long_file_names(size)},
      {"repeated_scope.pdb", repeated_scope(size)},
      {"dense_parts.pdb", dense_parts(size)},
      {"symb_cut_calls.symb", symb_cut_calls(size)},
      {"symb_shared_lines.symb", symb_shared_lines(size)},
  };
}

}  // namespace builders
