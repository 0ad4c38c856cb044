#include "bench/pdb_generator.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <string_view>
#include <vector>

#include "builders/pdb_builder.h"
#include "builders/pe_builder.h"

using builders::Annotations;
using builders::Bytes;
using builders::FunctionEntry;
using builders::Inlinee;
using builders::Line;
using builders::ModuleBuilder;
using builders::PdbBuilder;
using builders::PeBuilder;
using builders::TypePadding;
using builders::UnwindInfo;

namespace {

constexpr uint64_t kBytesPerModule = 48000;  // bytes of a PDB per module, everything included
constexpr uint32_t kFunctionsPerModule = 24;
constexpr uint32_t kClassesPerModule = 16;
constexpr uint32_t kFunctionTypesPerModule = 70;
constexpr uint32_t kTextRva = 0x1000;
constexpr uint32_t kPageSize = 4096;

constexpr std::array<std::string_view, 12> kNamespaces = {
    "base", "net", "render", "storage::detail", "media", "crypto", "ui::views", "ipc",
    "std",  "gfx", "sync",   "search::index"};
constexpr std::array<std::string_view, 16> kNouns = {
    "Buffer",  "Session",     "Decoder", "Scheduler", "Registry",  "Observer",
    "Cache",   "Transaction", "Surface", "Stream",    "Predicate", "Allocator",
    "Factory", "Iterator",    "Channel", "Widget"};
constexpr std::array<std::string_view, 16> kVerbs = {
    "Initialize", "OnReadComplete", "Flush",   "GetOrCreate", "operator()", "RemoveObserver",
    "Serialize",  "PostTask",       "Resolve", "ShrinkToFit", "DoCall",     "Validate",
    "emplace",    "UpdateLayout",   "Acquire", "~scoped"};

// Random numbers that are the same with every standard library, so that every machine generates the
// same file.
class Random {
 public:
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(next() % limit); }
  uint32_t between(uint32_t low, uint32_t high) { return low + below(high - low + 1); }
  bool one_in(uint32_t n) { return below(n) == 0; }
  template <typename Table>
  std::string_view pick(const Table& table) {
    return table[below(static_cast<uint32_t>(table.size()))];
  }

 private:
  uint64_t next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_ >> 16;
  }
  uint64_t state_ = 0x9E3779B97F4A7C15;
};

class Generator {
 public:
  explicit Generator(uint64_t size)
      : modules_(static_cast<uint32_t>(std::max<uint64_t>(size / kBytesPerModule, 2))) {
    assert(modules_ < 0x7F00);
  }
  GeneratedPdb generate();

 private:
  // State shared by the functions of one module.
  struct ModuleState {
    ModuleBuilder& builder;
    std::vector<uint32_t> files;  // references to the module's files, its own first
    std::vector<Inlinee> inlinees;
  };

  void add_shared_files();
  void add_module(uint32_t number);
  void add_files(ModuleState& module, uint32_t number);
  void add_types();
  uint32_t add_class();
  void add_ids(ModuleState& module);
  void add_function(ModuleState& module, uint32_t number);
  void add_locals(ModuleBuilder& builder);
  void add_to_symbol_records(uint32_t number, const std::string& name, bool local);
  void add_contribution(uint32_t length);
  void add_inline_sites(ModuleState& module, uint32_t begin, uint32_t end, uint32_t depth);
  void add_lines(ModuleState& module, uint32_t length);
  void add_unwind(uint32_t length);
  std::string file_info() const;
  std::string image() const;
  void split_streams();

  uint32_t pick_type(const std::vector<uint32_t>& types);
  std::string class_name();
  std::string method_name();

  uint32_t modules_;
  Random random_;
  PdbBuilder pdb_{kPageSize};
  uint32_t code_ = 0;  // end of the code so far, an offset in the text section
  std::vector<uint32_t> shared_files_;
  std::vector<uint32_t> value_types_;     // types for parameters
  std::vector<uint32_t> function_types_;  // procedures and member functions
  std::vector<uint32_t> inlinable_;       // ids with a name
  std::vector<uint32_t> module_files_;    // number of files, by module
  Bytes contributions_;
  Bytes unwind_;
  std::vector<FunctionEntry> entries_;
};

std::string number_text(uint32_t number) { return std::to_string(number); }

std::string Generator::class_name() {
  std::string name(random_.pick(kNamespaces));
  name.append("::").append(random_.pick(kNouns)).append(random_.pick(kNouns));
  if (random_.one_in(3)) {
    name.append("<").append(random_.pick(kNamespaces)).append("::").append(random_.pick(kNouns));
    name.append(",").append(number_text(random_.below(64))).append(">");
  } else {
    name.append(number_text(random_.below(5000)));
  }
  return name;
}

std::string Generator::method_name() {
  return class_name().append("::").append(random_.pick(kVerbs));
}

// Code uses the types that its module added, and the few common ones, which have low indexes.
uint32_t Generator::pick_type(const std::vector<uint32_t>& types) {
  const auto count = static_cast<uint32_t>(types.size());
  if (!random_.one_in(3)) return types[count - 1 - random_.below(std::min(count, 100u))];
  const uint64_t r = random_.below(1000);
  return types[static_cast<size_t>(count * r * r * r / 1000000000)];
}

void Generator::add_shared_files() {
  const uint32_t count = 40 + modules_ / 4;
  for (uint32_t i = 0; i < count; ++i) {
    std::string path = "c:\\build\\src\\include\\";
    path.append(random_.pick(kNouns)).append("\\").append(random_.pick(kVerbs));
    shared_files_.push_back(pdb_.names.add(path.append(number_text(i)).append(".h")));
  }
}

void Generator::add_files(ModuleState& module, uint32_t number) {
  const std::string checksum(16, static_cast<char>(number));
  const auto add = [&](uint32_t name) {
    module.files.push_back(module.builder.file(name, checksum, 1));
  };
  add(pdb_.names.add("c:\\build\\src\\modules\\unit" + number_text(number) + ".cc"));
  for (uint32_t i = 0; i < 20; ++i) {
    add(shared_files_[random_.below(static_cast<uint32_t>(shared_files_.size()))]);
  }
  module_files_.push_back(static_cast<uint32_t>(module.files.size()));
}

// Adds a class with its field list and the types derived from it.
uint32_t Generator::add_class() {
  std::string fields;
  for (uint32_t i = random_.between(10, 40); i > 0; --i) {
    // A member: kind, access, type, offset, name.
    Bytes member;
    member.u16(0x150D).u16(3).u32(0x74).u16(static_cast<uint16_t>(8 * i));
    member.text(random_.pick(kNouns)).zstr("_");
    while (member.size() % 4 != 0) member.u8(static_cast<uint8_t>(0xF4 - member.size() % 4));
    fields += member.str();
  }
  const uint32_t list = pdb_.types.add(0x1203, fields);
  const std::string name = class_name();
  Bytes record;  // members, options (has a unique name), list, base, shape, size, both names
  record.u16(8).u16(0x200).u32(list).u32(0).u32(0).u16(120).zstr(name);
  const uint32_t type = pdb_.types.add(0x1504, record.zstr(".?AV" + name + "@@").str());
  const uint32_t constant = pdb_.types.modifier(type, 1);
  value_types_.push_back(pdb_.types.pointer(type));
  value_types_.push_back(pdb_.types.pointer(constant, 0x1002C));
  return type;
}

void Generator::add_types() {
  static constexpr std::array<uint32_t, 8> kPrimitives = {0x74,  0x75, 0x30, 0x603,
                                                          0x670, 0x41, 0x13, 0x23};
  const uint32_t in_class = add_class();
  for (uint32_t i = 1; i < kClassesPerModule; ++i) add_class();
  for (uint32_t i = 0; i < kFunctionTypesPerModule; ++i) {
    std::vector<uint32_t> arguments(random_.below(6));
    for (uint32_t& type : arguments) {
      type = random_.one_in(2) ? kPrimitives[random_.below(kPrimitives.size())]
                               : pick_type(value_types_);
    }
    const auto count = static_cast<uint16_t>(arguments.size());
    const uint32_t list = pdb_.types.arguments(arguments);
    function_types_.push_back(
        i % 3 == 0 ? pdb_.types.procedure(0x74, list, count)
                   : pdb_.types.member_function(0x74, in_class, value_types_.back(), list, count));
  }
}

// Adds the ids of functions that this module is the first to inline, and their inlinee table. One
// in four is the id of a member function, for which readers render no name.
void Generator::add_ids(ModuleState& module) {
  for (uint32_t i = 0; i < 8; ++i) {
    const uint32_t type =
        function_types_[function_types_.size() - 1 - random_.below(kFunctionTypesPerModule)];
    if (random_.one_in(4)) {
      Bytes member;
      member.u32(type).u32(type).zstr(method_name());
      inlinable_.push_back(pdb_.ids.add(0x1602, member.str()));
    } else {
      inlinable_.push_back(pdb_.ids.function_id(method_name(), type));
    }
    // The source position of a class definition: current linkers write it without padding.
    Bytes definition;
    definition.u32(type).u32(type).u32(random_.below(3000)).u16(1);
    pdb_.ids.add(0x1607, definition.str(), TypePadding::kNone);
  }
  for (uint32_t i = 0; i < 24; ++i) {
    const size_t recent = std::min<size_t>(inlinable_.size(), 500);
    const size_t at = inlinable_.size() - 1 - random_.below(static_cast<uint32_t>(recent));
    const uint32_t file = module.files[random_.below(static_cast<uint32_t>(module.files.size()))];
    module.inlinees.push_back({inlinable_[at], file, random_.between(1, 900)});
  }
}

// Adds locals and calls. Converters skip them, but they are most of a module's symbols.
void Generator::add_locals(ModuleBuilder& builder) {
  for (uint32_t i = random_.between(6, 24); i > 0; --i) {
    // A local (type, flags, name) and its location (register, range, gap).
    builder.symbol(0x113E, Bytes().u32(0x74).u16(0).text(random_.pick(kNouns)).zstr("_").str());
    builder.symbol(0x1141, Bytes().u16(335).u16(0).u32(code_).u16(1).u16(20).u16(4).u16(2).str());
    if (random_.one_in(3)) {
      // A call site: offset, section, padding, type of the function.
      builder.symbol(0x1139, Bytes().u32(code_ + i).u16(1).u16(0).u32(0x1000).str());
    }
  }
}

// Adds consecutive sites inside [begin, end), each with nested sites.
void Generator::add_inline_sites(ModuleState& module, uint32_t begin, uint32_t end,
                                 uint32_t depth) {
  uint32_t at = begin + random_.between(2, 12);
  while (at + 16 < end) {
    const uint32_t length = random_.between(12, std::max(12u, (end - at) * 2 / 3));
    const Inlinee& inlinee =
        module.inlinees[random_.below(static_cast<uint32_t>(module.inlinees.size()))];
    Annotations annotations;
    annotations.op(6, 2 * random_.below(20)).op(3, at);
    for (uint32_t lines = random_.below(3); lines > 0; --lines) {
      annotations.op(11, 0x20 + random_.below(2) * 0x20 + random_.below(4));
    }
    module.builder.inline_site(inlinee.inlinee, annotations.op(4, length));
    if (depth < 4 && random_.one_in(2)) {
      add_inline_sites(module, at, std::min(at + length, end), depth + 1);
    }
    module.builder.inline_site_end();
    at += length + random_.between(8, 60);
  }
}

void Generator::add_lines(ModuleState& module, uint32_t length) {
  std::vector<Line> lines;
  uint32_t line = random_.between(10, 4000);
  for (uint32_t at = 0; at < length; at += random_.between(4, 30)) {
    lines.push_back({at, line | 0x80000000});
    line += random_.below(4);
  }
  module.builder.lines(1, code_, length, module.files[random_.one_in(3) ? 1 : 0], lines);
}

void Generator::add_unwind(uint32_t length) {
  UnwindInfo info;
  info.prolog_size = 12;
  for (const uint8_t nonvolatile : {3, 5, 6, 7, 12, 14}) {
    if (random_.one_in(2)) {
      info.slots.push_back(builders::unwind_slot(2, builders::kPushNonvol, nonvolatile));
    }
  }
  const auto blocks = static_cast<uint8_t>(random_.below(16));
  info.slots.insert(info.slots.begin(), builders::unwind_slot(12, builders::kAllocSmall, blocks));
  entries_.push_back(
      {kTextRva + code_, kTextRva + code_ + length, static_cast<uint32_t>(unwind_.size())});
  unwind_.text(info.bytes()).align(4);
}

// Adds a reference to the procedure (sum of the name, offset, module, name), and a public symbol if
// it has external linkage.
void Generator::add_to_symbol_records(uint32_t number, const std::string& name, bool local) {
  Bytes reference;
  reference.u16(0x1125).u32(0).u32(4).u16(1).zstr(name);
  while (reference.size() % 4 != 2) reference.u8(0);
  pdb_.symbol_records.u16(static_cast<uint16_t>(reference.size())).text(reference.str());
  if (local) return;
  pdb_.public_function("?" + name + "@@QEAAHPEAX" + number_text(number) + "@Z", 1, code_);
}

// Adds a section contribution: section, offset, size, characteristics, module, sums.
void Generator::add_contribution(uint32_t length) {
  if (contributions_.empty()) contributions_.u32(0xF12EBA2D);
  contributions_.u16(1).u16(0).u32(code_).u32(length).u32(0x60500020).u16(0).u16(0).u32(0).u32(0);
}

void Generator::add_function(ModuleState& module, uint32_t number) {
  const uint32_t length =
      random_.one_in(12) ? random_.between(600, 2500) : random_.between(20, 260);
  const bool local = random_.one_in(3);
  const std::string name = method_name();
  const uint32_t type = pick_type(function_types_);
  module.builder.proc({name, 1, code_, length, type},
                      local ? builders::kLProc32 : builders::kGProc32);
  module.builder.symbol(builders::kFrameProc, std::string(26, '\0'));
  add_locals(module.builder);
  if (!random_.one_in(3)) add_inline_sites(module, 0, length, 0);
  module.builder.end();
  add_lines(module, length);
  add_unwind(length);
  add_to_symbol_records(number, name, local);
  add_contribution(length);
  code_ = (code_ + length + 15) / 16 * 16;
}

void Generator::add_module(uint32_t number) {
  const std::string object = "c:\\build\\out\\obj\\modules\\unit" + number_text(number) + ".obj";
  ModuleState module{pdb_.add_module(object), {}, {}};
  add_files(module, number);
  add_types();
  add_ids(module);
  for (uint32_t i = 0; i < kFunctionsPerModule; ++i) add_function(module, i);
  if (number % 5 == 0) module.builder.thunk({"__imp_load_" + number_text(number), 1, code_, 6, 0});
  code_ += 16;
  module.builder.inlinees(module.inlinees);
  module.builder.tail(Bytes().u32(0).str());  // no references to globals
}

// The source files by module, which some readers of PDBs use: counts of modules and files; per
// module its first file and number of files; per file the offset of its name; names.
std::string Generator::file_info() const {
  Bytes bytes;
  uint32_t files = 0;
  for (const uint32_t count : module_files_) files += count;
  bytes.u16(static_cast<uint16_t>(modules_)).u16(static_cast<uint16_t>(files));
  for (uint32_t i = 0; i < modules_; ++i) bytes.u16(static_cast<uint16_t>(i));
  for (const uint32_t count : module_files_) bytes.u16(static_cast<uint16_t>(count));
  for (uint32_t i = 0; i < files; ++i) bytes.u32(0);
  return std::move(bytes.zstr("generated.cc").align(4)).str();
}

// Unwind info and function entries follow the text section, which has no bytes in the file.
std::string Generator::image() const {
  const uint32_t unwind_rva = (kTextRva + code_ + 0xFFFF) & ~0xFFFFu;
  const auto unwind_size = static_cast<uint32_t>(unwind_.size());
  const uint32_t entries_rva = (unwind_rva + unwind_size + 0xFFFF) & ~0xFFFFu;
  Bytes table;
  for (const FunctionEntry& entry : entries_) {
    table.u32(entry.begin).u32(entry.end).u32(unwind_rva + entry.unwind);
  }
  const auto table_size = static_cast<uint32_t>(table.size());
  PeBuilder pe;
  pe.size_of_image(entries_rva + table_size).section(".text", kTextRva, {}, code_);
  pe.section(".xdata", unwind_rva, unwind_.str());
  pe.section(".pdata", entries_rva, std::move(table).str()).directory(3, entries_rva, table_size);
  return pe.codeview(pdb_.info.guid, 1, "C:\\build\\out\\generated.pdb").build();
}

void Generator::split_streams() {
  const auto some_pages = [this](uint32_t stream, uint32_t step) {
    for (uint32_t page = 1; page < 100000; page += random_.between(1, step)) {
      pdb_.msf.split(stream, page);
    }
  };
  some_pages(2, 60);
  for (uint32_t i = 0; i < modules_; i += 8) {
    for (uint32_t page = 1; page < 20; page += random_.between(1, 3)) {
      pdb_.msf.split(pdb_.module_stream(i), page);
    }
  }
}

GeneratedPdb Generator::generate() {
  add_shared_files();
  for (uint32_t i = 0; i < modules_; ++i) add_module(i);
  pdb_.section({".text", kTextRva, code_, (code_ + 511) / 512 * 512, 0x400, 0x60000020});
  pdb_.section({".rdata", (kTextRva + code_ + 0xFFFF) & ~0xFFFFu, 0x10000, 0x10000, 0, 0x40000040});
  pdb_.dbi.section_contributions = contributions_.str();
  pdb_.dbi.file_info = file_info();
  GeneratedPdb result;
  result.image = image();
  pdb_.lay_out();
  split_streams();
  result.pdb = pdb_.build().bytes;
  return result;
}

}  // namespace

GeneratedPdb generate_pdb(uint64_t size) { return Generator(size).generate(); }
