// Converts text to a SYMB image: the resolver's module parses the text, then its containers are
// traversed twice in the same order, first to measure the image and collect its strings, then to
// write it. The containers are sorted, and so are the image's tables.

#include <algorithm>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/huge_page_block.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "common/symb_identity.h"
#include "common/symb_strings.h"
#include "common/symb_text.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "processor/basic_source_line_resolver_module.h"

namespace symforge_internal {
namespace {

using google_breakpad::BasicSourceLineResolver;
using google_breakpad::FunctionRecords;
using google_breakpad::StackWinRecord;
using Module = BasicSourceLineResolver::Module;
using StackWinRange = Module::StackWinMap::Range;
using StackWinRanges = StackWinRange::AddressToRangeMap;

bool has_code_id(const SymbHeaderLines& info) {
  return !info.code_id.empty() && !info.code_file.empty();
}

// Calls `visit(high, range, record)` for each range of a STACK WIN tree, outer ranges before inner
// ones. Before the ranges directly inside one, calls `enter(owner_record, ranges)` with the record
// of the outer range; it returns the position of their records. Not recursive, because a text can
// nest ranges arbitrarily deep.
template <typename Record, typename Enter, typename Visit>
void walk_stack_win(Record* root, const StackWinRanges& top, Enter enter, Visit visit) {
  struct Level {
    const StackWinRanges* ranges;
    StackWinRanges::const_iterator next;  // never the end
    Record* record;
  };
  std::deque<Level> path = {{&top, top.begin(), enter(root, top)}};
  while (!path.empty()) {
    Level& level = path.back();
    const StackWinRange& range = *level.next.value();
    Record* const record = level.record;
    visit(level.next.key(), range, record);
    ++level.next;
    if (record != nullptr) ++level.record;
    // A level ends before its last range is entered, so that a chain of ranges is not a long path.
    if (level.next == level.ranges->end()) path.pop_back();
    if (const StackWinRanges* inside = range.Map()) {
      path.push_back({inside, inside->begin(), enter(record, *inside)});
    }
  }
}

// Writes one image. measure() and write() visit the records in the same order, which associates
// each reference with its string.
class ImageWriter {
 public:
  ImageWriter(const SymbHeaderLines& info, const Module& module) : info_(info), module_(module) {}

  // Returns the exact size of the image in bytes.
  uint64_t measure();

  // Writes the image to `file_base`, a zeroed block of that size, aligned to 8. Returns the end of
  // the last byte written.
  char* write(char* file_base);

 private:
  uint64_t measure_functions();
  uint64_t measure_stack_win();

  void write_identity();
  void write_files();
  void write_functions();
  void write_lines(const FunctionRecords& records);
  void write_inline_functions(const FunctionRecords& records);
  void write_publics();
  void write_stack_win();
  void populateWindowsFrameInfo(uint64_t addr, const StackWinRange& range,
                                symb_nested_window_frame_info* f_nested_wfi);
  void write_rules();
  void write_sections();

  uint64_t position() const { return static_cast<uint64_t>(file_ptr_ - file_base_); }

  // Allocates `count` records.
  template <typename Record>
  Record* reserve(size_t count) {
    Record* records = reinterpret_cast<Record*>(file_ptr_);
    file_ptr_ += count * sizeof(Record);
    return records;
  }

  const SymbHeaderLines& info_;
  const Module& module_;
  SymbStrings strings_;
  char* file_base_ = nullptr;
  char* file_ptr_ = nullptr;  // position of the next block
  symb_header_v2* header_ = nullptr;
};

uint64_t padded_string_table(const SymbStrings& strings) {
  return (strings.table_bytes() + 7) / 8 * 8;
}

uint64_t ImageWriter::measure() {
  for (const std::string* text : {&info_.os, &info_.arch, &info_.debug_id, &info_.debug_file}) {
    strings_.add(*text);
  }
  if (has_code_id(info_)) {
    strings_.add(info_.code_id);
    strings_.add(info_.code_file);
  }
  for (const auto& [index, name] : module_.Files()) strings_.add(name);
  uint64_t file_size = sizeof(symb_header_v2) + module_.Files().size() * sizeof(symb_file);
  file_size += measure_functions();
  for (const auto& [address, symbol] : module_.Publics().Map()) strings_.add(symbol.name);
  file_size += module_.Publics().Map().size() * sizeof(symb_public);
  file_size += measure_stack_win();
  for (const auto& [high, range] : module_.CFI().GetMap()) strings_.add(range.entry());
  file_size += module_.CFI().GetMap().size() * sizeof(symb_cfi_rule);
  for (const auto& [address, rule] : module_.CFIDelta()) strings_.add(rule);
  file_size += module_.CFIDelta().size() * sizeof(symb_cfi_delta_rule);
  strings_.place(sizeof(symb_header_v2));
  file_size += padded_string_table(strings_);
  return file_size + info_.sections.size() * sizeof(symb_section);
}

uint64_t ImageWriter::measure_functions() {
  uint64_t bytes = 0;
  for (const auto& [high, range] : module_.Functions().GetMap()) {
    const BasicSourceLineResolver::Function& function = *range.entry();
    strings_.add(function.name);
    const FunctionRecords& records = function.records;
    for (size_t i = 0; i < records.site_count(); ++i) strings_.add_repeated(records.site(i).name);
    bytes += sizeof(symb_func_inline) + records.line_count() * sizeof(symb_line) +
             records.site_count() * sizeof(symb_inline);
  }
  return bytes;
}

uint64_t ImageWriter::measure_stack_win() {
  uint64_t ranges = module_.WinFrameInfo().size();  // the roots
  for (const Module::StackWinMap& tree : module_.WinFrameInfo()) {
    if (tree.Map() == nullptr) continue;
    char* const no_records = nullptr;
    walk_stack_win(
        no_records, *tree.Map(),
        [&](char*, const StackWinRanges& inside) {
          ranges += inside.size();
          return no_records;
        },
        [&](uint64_t, const StackWinRange& range, char*) {
          if (*range.Entry().program_string != '\0') strings_.add(range.Entry().program_string);
        });
  }
  return ranges * sizeof(symb_nested_window_frame_info);
}

char* ImageWriter::write(char* file_base) {
  file_base_ = file_ptr_ = file_base;
  header_ = reserve<symb_header_v2>(1);
  symb_header_v1& header = header_->v1;
  std::memcpy(header.md.magic, kSymbMagic.data(), sizeof(header.md.magic));
  header.md.version = kSymbVersion;
  header.string_table = position();
  header.string_table_size = padded_string_table(strings_);
  strings_.write(reserve<char>(header.string_table_size));
  write_identity();
  write_files();
  write_functions();
  write_publics();
  write_stack_win();
  write_rules();
  write_sections();
  return file_ptr_;
}

void ImageWriter::write_identity() {
  symb_header_v1& header = header_->v1;
  header.os = strings_.next();
  header.arch = strings_.next();
  header.debug_id = strings_.next();
  header.debug_file = strings_.next();
  if (!has_code_id(info_)) return;
  header.code_id = strings_.next();
  header.code_file = strings_.next();
}

void ImageWriter::write_files() {
  header_->v1.files = position();
  header_->v1.file_count = module_.Files().size();
  auto* file = reserve<symb_file>(module_.Files().size());
  for (const auto& [index, name] : module_.Files()) {
    file->index = index;
    file->name = strings_.next();
    ++file;
  }
}

void ImageWriter::write_functions() {
  const auto& functions = module_.Functions().GetMap();
  header_->v1.functions = position();
  header_->v1.function_count = functions.size();
  auto* record = reserve<symb_func_inline>(functions.size());
  for (const auto& [high, range] : functions) {
    const BasicSourceLineResolver::Function& function = *range.entry();
    record->name = strings_.next();
    record->address = static_cast<uint32_t>(function.address);
    record->size = static_cast<uint32_t>(function.size);
    record->parameter_size = function.parameter_size;
    record->lines = position();
    record->line_count = static_cast<uint32_t>(function.records.line_count());
    write_lines(function.records);
    record->inlines = position();
    record->inline_count = static_cast<uint32_t>(function.records.site_count());
    write_inline_functions(function.records);
    ++record;
  }
}

void ImageWriter::write_lines(const FunctionRecords& records) {
  auto* record = reserve<symb_line>(records.line_count());
  for (size_t i = 0; i < records.line_count(); ++i) {
    const FunctionRecords::Line line = records.line(i);
    record->address = static_cast<uint32_t>(line.address);
    record->size = static_cast<uint32_t>(line.size);
    record->source_file_id = line.source_file_id;
    record->line = line.line;
    ++record;
  }
}

void ImageWriter::write_inline_functions(const FunctionRecords& records) {
  auto* record = reserve<symb_inline>(records.site_count());
  for (size_t i = 0; i < records.site_count(); ++i) {
    const FunctionRecords::Site site = records.site(i);
    record->address = static_cast<uint32_t>(site.function_address);
    record->size = static_cast<uint32_t>(site.code_size);
    record->source_file_id = site.file_id;
    record->line = site.source_line;
    record->caller = static_cast<uint32_t>(site.caller);
    record->name = strings_.next();
    ++record;
  }
}

void ImageWriter::write_publics() {
  header_->v1.public_functions = position();
  header_->v1.public_function_count = module_.Publics().Map().size();
  auto* record = reserve<symb_public>(module_.Publics().Map().size());
  for (const auto& [address, symbol] : module_.Publics().Map()) {
    record->name = strings_.next();
    record->address = static_cast<uint32_t>(address);
    record->parameter_size = symbol.parameter_size;
    ++record;
  }
}

// The ranges inside one are adjacent, and their array is allocated before any of them is visited.
void ImageWriter::write_stack_win() {
  const Module::StackWinMaps& trees = module_.WinFrameInfo();
  header_->v1.windows_frame_info = position();
  header_->v1.windows_frame_info_count = trees.size();
  auto* root = reserve<symb_nested_window_frame_info>(trees.size());
  for (const Module::StackWinMap& tree : trees) {
    if (tree.Map() != nullptr) {
      walk_stack_win(
          root, *tree.Map(),
          [&](symb_nested_window_frame_info* owner, const StackWinRanges& inside) {
            owner->map = position();
            owner->map_count = inside.size();
            return reserve<symb_nested_window_frame_info>(inside.size());
          },
          [&](uint64_t high, const StackWinRange& range, symb_nested_window_frame_info* record) {
            populateWindowsFrameInfo(high, range, record);
          });
    }
    ++root;
  }
}

void ImageWriter::populateWindowsFrameInfo(uint64_t addr, const StackWinRange& range,
                                           symb_nested_window_frame_info* f_nested_wfi) {
  const StackWinRecord& info = range.Entry();
  symb_window_frame_info& wfi = f_nested_wfi->wfi;
  wfi.type = info.type;
  wfi.valid = google_breakpad::WindowsFrameInfo::VALID_ALL;
  symb_set_sizes(info, &wfi);
  wfi.allocates_base_pointer = info.allocates_base_pointer ? 1 : 0;
  if (*info.program_string != '\0') wfi.program_string = strings_.next();
  f_nested_wfi->base = static_cast<uint32_t>(range.Base());
  f_nested_wfi->address = static_cast<uint32_t>(addr);
}

void ImageWriter::write_rules() {
  const auto& initial_rules = module_.CFI().GetMap();
  header_->v1.cfi_initial_rules = position();
  header_->v1.cfi_initial_rule_count = initial_rules.size();
  auto* initial = reserve<symb_cfi_rule>(initial_rules.size());
  for (const auto& [high, range] : initial_rules) {
    initial->base = static_cast<uint32_t>(range.base());
    initial->size = static_cast<uint32_t>(high) + 1 - initial->base;
    initial->rule = strings_.next();
    ++initial;
  }
  header_->v1.cfi_delta_rules = position();
  header_->v1.cfi_delta_rule_count = module_.CFIDelta().size();
  auto* delta = reserve<symb_cfi_delta_rule>(module_.CFIDelta().size());
  for (const auto& [address, rule] : module_.CFIDelta()) {
    delta->address = static_cast<uint32_t>(address);
    delta->rule = strings_.next();
    ++delta;
  }
}

void ImageWriter::write_sections() {
  header_->sections = position();
  header_->section_count = info_.sections.size();
  auto* sections = reserve<symb_section>(info_.sections.size());
  std::copy(info_.sections.begin(), info_.sections.end(), sections);
}

}  // namespace

bool symb_write(TextBuffer text, char** out_buffer, size_t* out_buffer_size) {
  SymbHeaderLines info;
  char* const symbol_data = text.data();
  const size_t symbol_data_size = text.size();
  if (!sym_info_parse(symbol_data, info)) return false;
  Module module("foo");  // any name: the module does not belong to a resolver
  module.LoadMapInPlace(symbol_data, symbol_data_size + 1);
  if (info.os.empty() || info.arch.empty()) return false;

  ImageWriter writer(info, module);
  const uint64_t file_size = writer.measure();
  std::unique_ptr<char[]> file_buffer(new char[file_size]);
  prefer_huge_pages(file_buffer.get(), file_size);
  std::memset(file_buffer.get(), 0, file_size);  // padding and absent references
  if (writer.write(file_buffer.get()) != file_buffer.get() + file_size) {
    std::cerr << "Estimate file size doesn't match actual size" << std::endl;
    return false;
  }
  *out_buffer = file_buffer.release();
  *out_buffer_size = file_size;
  return true;
}

}  // namespace symforge_internal

bool symb_write(const char* symbol_data, char** out_buffer, size_t* out_buffer_size) {
  symforge_internal::TextBuffer text;
  text.append(symbol_data);
  return symforge_internal::symb_write(std::move(text), out_buffer, out_buffer_size);
}
