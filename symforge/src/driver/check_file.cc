#include "symforge/src/driver/check_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "base/file_io.h"
#include "base/json_writer.h"
#include "common/symb.h"
#include "common/symb_text.h"
#include "symforge/src/driver/file_kind.h"
#include "symforge/src/driver/identify.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/driver/symbol_check.h"

namespace symforge_internal {

namespace {

std::string hex(uint64_t number) {
  TextBuffer text;
  LineWriter(text, 20).hex(number);
  return std::string(text.view());
}

// Replaces a SYMB image by its text. False if that is not possible.
bool make_text_of_symb(TextBuffer& content) {
  TextBuffer text;
  if (!symb_read(content.data(), content.size(), text, TextDialect::kStandard)) return false;
  content = std::move(text);
  return true;
}

// Whether two code identifiers are the same. In default mode a time stamp has blanks instead of its
// first zeros, which are missing from the identifier that was read.
bool same_code_id(std::string_view id, std::string_view of_image) {
  if (id == of_image) return true;
  while (of_image.starts_with('0')) of_image.remove_prefix(1);
  return !id.empty() && id == of_image;
}

class FileCheck {
 public:
  FileCheck(const std::string& path, const FileIdentity* against) : against_(against) {
    json_.begin_object().field("path", path);
    try {
      sound_ = check(path);
    } catch (const std::bad_alloc&) {
      fail("not enough memory");
    }
    json_.field("sound", sound_).end_object();
  }

  bool sound() const { return sound_; }
  std::string line() const { return json_.line(); }

 private:
  bool fail(std::string_view error) {
    json_.field("error", error);
    return false;
  }
  bool check(const std::string& path);
  bool check_content(FileKind kind, TextBuffer content, const FileIdentity& identity);
  void write_identity(const FileIdentity& identity);
  void write_counts(const SymbolCheck& check);
  void write_malformed(const SymbolCheck& check);
  void write_ranges(const SymbolCheck& check);
  bool compare(const sym_info& identity);

  const FileIdentity* const against_;
  JsonWriter json_;
  bool sound_ = false;
};

bool FileCheck::check(const std::string& path) {
  const FileIdentity identity = identify_file(path);
  json_.text_or_null("kind", identity.kind_name);
  if (!identity.error.empty()) return fail(identity.error);
  if (identity.kind != FileKind::kSymbolText && identity.kind != FileKind::kSymb) {
    return fail("not a symbol file");
  }
  TextBuffer content;
  const FileDescriptor file(open_regular(path.c_str()));
  if (!file.is_open() || !read_file(file.get(), content)) return fail(strerror(errno));
  return check_content(identity.kind, std::move(content), identity);
}

bool FileCheck::check_content(FileKind kind, TextBuffer content, const FileIdentity& identity) {
  if (kind == FileKind::kSymb) {
    if (!symb_validate(reinterpret_cast<uint64_t>(content.data()), content.size())) {
      return fail("the header, the tables or the strings are damaged");
    }
    if (!make_text_of_symb(content)) return fail("the text is too long for such a file");
  }
  std::optional<uint64_t> image_size = identity.image_size;
  if (against_ != nullptr && against_->image_size) image_size = *against_->image_size;
  const SymbolCheck check = check_symbol_text(content, image_size);
  const char* const dialect = check.own_dialect ? "default" : "published";
  json_.text_or_null("dialect", kind == FileKind::kSymb ? "" : dialect);
  write_identity(identity);
  write_counts(check);
  write_malformed(check);
  write_ranges(check);
  json_.field("functions_without_lines", check.functions_without_lines);
  json_.field("functions_without_rules", check.functions_without_rules);
  const bool same = against_ == nullptr || compare(check.identity);
  return same && check.malformed == 0 && check.bad_ranges == 0;
}

void FileCheck::write_identity(const FileIdentity& identity) {
  json_.text_or_null("architecture", identity.architecture);
  json_.text_or_null("debug_file", identity.debug_file);
  json_.text_or_null("debug_id", identity.debug_id);
  json_.text_or_null("code_file", identity.code_file);
  json_.text_or_null("code_id", identity.code_id);
}

void FileCheck::write_counts(const SymbolCheck& check) {
  json_.begin_object("lines");
  for (size_t i = 0; i < std::size(kLineKinds); ++i) json_.field(kLineKinds[i], check.counts[i]);
  json_.end_object();
}

void FileCheck::write_malformed(const SymbolCheck& check) {
  json_.field("malformed", check.malformed).begin_array("malformed_lines");
  for (const MalformedLine& malformed : check.malformed_lines) {
    json_.begin_object().field("line", malformed.line);
    json_.field("reason", malformed.reason).end_object();
  }
  json_.end_array();
}

void FileCheck::write_ranges(const SymbolCheck& check) {
  json_.field("bad_ranges", check.bad_ranges).begin_array("bad_range_lines");
  for (const BadRange& range : check.bad_range_lines) {
    json_.begin_object().field("line", range.line);
    json_.field("kind", kLineKinds[static_cast<size_t>(range.kind)]);
    json_.field("address", hex(range.address)).field("size", hex(range.size));
    json_.field("reason", range.reason).end_object();
  }
  json_.end_array();
}

// The code identifier is compared if both files have one.
bool FileCheck::compare(const sym_info& identity) {
  const bool same_debug_id = !against_->debug_id.empty() && identity.debug_id == against_->debug_id;
  const bool has_code_ids = !against_->code_id.empty() && !identity.code_id.empty();
  const bool same_code = !has_code_ids || same_code_id(identity.code_id, against_->code_id);
  json_.begin_object("against").text_or_null("kind", against_->kind_name);
  json_.text_or_null("debug_id", against_->debug_id).text_or_null("code_id", against_->code_id);
  json_.field("debug_id_matches", same_debug_id);
  if (has_code_ids) {
    json_.field("code_id_matches", same_code);
  } else {
    json_.null_field("code_id_matches");
  }
  if (!against_->error.empty()) json_.field("error", against_->error);
  json_.end_object();
  return same_debug_id && same_code;
}

}  // namespace

int check_files(const std::vector<std::string>& paths, const char* against) {
  std::optional<FileIdentity> wanted;
  if (against != nullptr) wanted = identify_file(against);
  int status = 0;
  for (const std::string& path : paths) {
    set_message_input(path.c_str());
    const FileCheck check(path, wanted ? &*wanted : nullptr);
    if (!check.sound()) status = 1;
    if (!write_file(STDOUT_FILENO, check.line())) {
      report_errno("failed to write");
      return 1;
    }
  }
  return status;
}

}  // namespace symforge_internal
