#include "builders/symb_builder.h"

#include <map>

#include "builders/bytes.h"

namespace builders {

namespace {

constexpr size_t kRangeSize = 64;

class Writer {
 public:
  explicit Writer(const SymbModel& model) : model_(model) {}

  std::string write() {
    collect_strings();
    place_strings();
    // The tables are laid out before the header, which contains their offsets.
    const uint64_t files = position_;
    Bytes body = write_files();
    const uint64_t functions = files + body.size();
    body.text(write_functions(functions));
    const uint64_t publics = files + body.size();
    for (const SymbPublic& symbol : model_.publics) {
      body.u64(at(symbol.name)).u32(symbol.address).u32(symbol.parameter_size);
    }
    const uint64_t frame_info = files + body.size();
    body.text(write_frame_info(frame_info));
    const uint64_t initial = files + body.size();
    for (const SymbInitialRule& rule : model_.initial_rules) {
      body.u32(rule.base).u32(rule.size).u64(at(rule.rule));
    }
    const uint64_t delta = files + body.size();
    for (const auto& [address, rule] : model_.delta_rules) body.u32(address).u32(0).u64(at(rule));
    const uint64_t sections = files + body.size();
    if (model_.version >= 2) {
      for (const auto& [address, size] : model_.sections) body.u64(address).u64(size);
    }

    const bool code = !model_.code_id.empty();
    Bytes header;
    header.text("SYMB").u32(model_.version);
    header.u64(at(model_.os)).u64(at(model_.arch)).u64(at(model_.debug_id));
    header.u64(at(model_.debug_file));
    header.u64(code ? at(model_.code_id) : 0).u64(code ? at(model_.code_file) : 0);
    header.u64(header_size()).u64(files - header_size());
    header.u64(files).u64(model_.files.size()).u64(functions).u64(model_.functions.size());
    header.u64(publics).u64(model_.publics.size()).u64(frame_info).u64(5);
    header.u64(initial).u64(model_.initial_rules.size());
    header.u64(delta).u64(model_.delta_rules.size());
    if (model_.version >= 2) header.u64(sections).u64(model_.sections.size());
    return header.str() + string_table_ + body.str();
  }

 private:
  uint64_t header_size() const { return model_.version < 2 ? 168 : 184; }
  bool has_sites() const { return model_.version > 2; }
  uint64_t at(const std::string& text) const { return strings_.at(text); }

  void collect_strings() {
    for (const auto* text : {&model_.os, &model_.arch, &model_.debug_id, &model_.debug_file}) {
      strings_[*text];
    }
    if (!model_.code_id.empty()) strings_[model_.code_id], strings_[model_.code_file];
    for (const auto& file : model_.files) strings_[file.second];
    for (const SymbFunction& function : model_.functions) {
      strings_[function.name];
      if (!has_sites()) continue;
      for (const SymbSite& site : function.sites) strings_[site.name];
    }
    for (const SymbPublic& symbol : model_.publics) strings_[symbol.name];
    for (const auto& type : model_.frame_info) collect_programs(type);
    for (const SymbInitialRule& rule : model_.initial_rules) strings_[rule.rule];
    for (const auto& rule : model_.delta_rules) strings_[rule.second];
  }
  void collect_programs(const std::vector<SymbRange>& ranges) {
    for (const SymbRange& range : ranges) {
      if (!range.program.empty()) strings_[range.program];
      collect_programs(range.inside);
    }
  }
  void place_strings() {
    Bytes table;
    for (auto& [text, offset] : strings_) {  // char_traits<char> compares unsigned bytes
      offset = header_size() + table.size();
      table.zstr(text);
    }
    string_table_ = table.align(8).str();
    position_ = header_size() + string_table_.size();
  }

  Bytes write_files() const {
    Bytes table;
    for (const auto& [index, name] : model_.files) table.u32(index).u32(0).u64(at(name));
    return table;
  }

  std::string write_functions(uint64_t offset) const {
    uint64_t lines = offset + model_.functions.size() * (has_sites() ? 48 : 32);
    Bytes table, details;
    for (const SymbFunction& function : model_.functions) {
      table.u64(at(function.name)).u32(function.address).u32(function.size);
      table.u32(function.parameter_size).u32(function.lines.size()).u64(lines);
      for (const SymbLine& line : function.lines) {
        details.u32(line.address).u32(line.size).u32(line.file).u32(line.line);
      }
      lines += 16 * function.lines.size();
      if (!has_sites()) continue;
      table.u32(function.sites.size()).u32(0).u64(lines);
      for (const SymbSite& site : function.sites) {
        details.u32(site.address).u32(site.size).u32(site.file).u32(site.line);
        details.u32(site.caller).u32(0).u64(at(site.name));
      }
      lines += 32 * function.sites.size();
    }
    return table.str() + details.str();
  }

  std::string write_frame_info(uint64_t offset) const {
    uint64_t next = offset + 5 * kRangeSize;
    Bytes roots;
    std::string ranges;
    for (uint32_t type = 0; type < 5; ++type) {
      const auto& top = model_.frame_info[type];
      roots.fill(48).u64(top.empty() ? 0 : next).u64(top.size());
      ranges += write_ranges(type, top, next);
    }
    return roots.str() + ranges;
  }
  // Writes one array, followed by the arrays inside its members.
  std::string write_ranges(uint32_t type, const std::vector<SymbRange>& ranges,
                           uint64_t& next) const {
    next += ranges.size() * kRangeSize;
    Bytes array;
    std::string inside;
    for (const SymbRange& range : ranges) {
      array.u32(type).u32(0xFFFFFFFF);
      array.u16(1).u16(2).u16(3).u16(4).u32(5).u32(6).u32(range.allocates_base_pointer).u32(0);
      array.u64(range.program.empty() ? 0 : at(range.program)).u32(range.base).u32(range.last);
      array.u64(range.inside.empty() ? 0 : next).u64(range.inside.size());
      inside += write_ranges(type, range.inside, next);
    }
    return array.str() + inside;
  }

  const SymbModel& model_;
  std::map<std::string, uint64_t> strings_;
  std::string string_table_;
  uint64_t position_ = 0;
};

}  // namespace

std::string SymbModel::bytes() const { return Writer(*this).write(); }

SymbModel rich_symb_model(uint32_t version) {
  SymbModel model;
  model.version = version;
  model.code_id = "5F1E2D3C21000";
  model.code_file = "a.exe";
  model.files = {{0, "zero.cpp"}, {1, "c:\\src\\a b.cpp"}, {7, "b.cpp"}};
  model.functions = {
      {0x1000,
       0x100,
       8,
       "main",
       {{0x1000, 0x10, 1, 10}, {0x1010, 0x80, 7, 20}},
       {{0x1010, 0x40, 1, 30, 0, "outer"},
        {0x1020, 0x20, 7, 40, 1, "middle"},
        {0x1028, 8, 9, 50, 2, "inner"},
        {0x1060, 8, 1, 60, 0, "second"}}},
      {0x1200, 0x10, -1, "no_lines", {}, {{0x1200, 8, 1, 1, 0, "unseen"}}},
      {0x2000, 0x20, 12, "last", {{0x2000, 8, 99, 3}}, {}},
  };
  model.publics = {
      {0x800, 4, "below"}, {0x1100, 0, "between"}, {0x2000, 0, "same"}, {0x3000, -1, "above"}};
  model.frame_info[4] = {{0x1000,
                          0x10ff,
                          "$T0 .raSearch =",
                          0,
                          {{0x1010, 0x101f, "inner program"}, {0x1030, 0x103f, ""}}},
                         {0x1200, 0x12ff, ""}};
  model.frame_info[3] = {{0x1500, 0x15ff, ""}};
  model.frame_info[0] = {{0x1080, 0x10ff, "", 1}, {0x1700, 0x17ff, "", 1}};
  model.initial_rules = {{0x1000, 0x100, ".cfa: $rsp 8 + .ra: .cfa 8 - ^"},
                         {0x1100, 0x10, ".cfa: $rsp 16 +"},
                         {0x2000, 0x10, "nonsense"}};
  model.delta_rules = {{0xfff, "dropped: 1"},
                       {0x1000, ".cfa: $rsp 32 +"},
                       {0x1004, "$rbx: 7"},
                       {0x1100, ".cfa: $rsp 48 +"},
                       {0x1110, "dropped: 2"}};
  model.sections = {{0x1000, 0x400}, {0x123456789a, 0x200}};
  return model;
}

}  // namespace builders
