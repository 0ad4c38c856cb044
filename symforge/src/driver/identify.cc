#include "symforge/src/driver/identify.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "base/file_io.h"
#include "base/json_writer.h"
#include "base/path_names.h"
#include "common/symb.h"
#include "common/symb_block.h"
#include "symforge/src/driver/foreign_identity.h"
#include "symforge/src/driver/messages.h"
#include "symforge/src/msf/pdb_summary.h"
#include "symforge/src/pe/architecture.h"
#include "symforge/src/pe/image_identity.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

// Bytes of a text symbol file that are searched for its identity, which comes first.
constexpr size_t kTextStart = 64 * 1024;

// At most `size` bytes of the file from `position` on.
std::string bytes_at(int fd, uint64_t position, size_t size) {
  std::string bytes(size, '\0');
  if (position > INT64_MAX - size) return {};
  const ssize_t got = pread(fd, bytes.data(), size, static_cast<off_t>(position));
  bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return bytes;
}

void identify_pdb(int fd, std::string_view path, FileIdentity& identity) {
  const std::optional<PdbSummary> summary = read_pdb_summary(fd);
  identity.debug_file = last_component(path);
  if (!summary) return;
  identity.debug_id = summary->debug_id;
  identity.architecture = architectureName(summary->machine, TextDialect::kStandard);
  if (summary->foreign_types) identity.kind_name = "pdb_without_types";
  if (summary->managed) identity.kind_name = "managed_pdb";
}

void identify_image(const std::string& path, FileIdentity& identity) {
  const std::optional<ImageSummary> image = read_image_summary(path.c_str());
  identity.code_file = last_component(path);
  if (!image) return;
  identity.code_id = image->code_id();
  identity.image_size = image->size;
  identity.time_stamp = image->time_stamp;
  identity.architecture = architectureName(image->machine, TextDialect::kStandard);
  if (image->managed) identity.kind_name = "managed_image";
  if (!image->pdb) return;
  identity.debug_id = image->pdb->debug_id;
  identity.debug_file = last_component(image->pdb->debug_file, kAnySeparators);
}

// The code identifier of a Windows module is a time stamp of eight hexadecimal digits, and a size.
void split_code_id(FileIdentity& identity) {
  constexpr size_t kTimeDigits = 8;
  const std::string& id = identity.code_id;
  if (id.size() <= kTimeDigits) return;
  uint32_t time = 0;
  uint32_t size = 0;
  const char* const middle = id.data() + kTimeDigits;
  const char* const end = id.data() + id.size();
  const bool read = std::from_chars(id.data(), middle, time, 16).ptr == middle &&
                    std::from_chars(middle, end, size, 16).ptr == end;
  if (!read) return;
  identity.time_stamp = time;
  identity.image_size = size;
}

void take_symbol_identity(const sym_info& info, FileIdentity& identity) {
  identity.architecture = info.arch;
  identity.debug_file = info.debug_file;
  identity.debug_id = info.debug_id;
  identity.code_file = info.code_file;
  identity.code_id = info.code_id;
  if (info.os == "windows") split_code_id(identity);
}

void identify_text(int fd, FileIdentity& identity) {
  sym_info info;
  sym_info_parse(bytes_at(fd, 0, kTextStart).c_str(), info);
  take_symbol_identity(info, identity);
}

std::string symb_string(int fd, uint64_t reference) {
  constexpr size_t kLongest = 4096;
  if (reference == 0) return {};
  const std::string bytes = bytes_at(fd, reference, kLongest);
  const size_t end = bytes.find('\0');
  return end == std::string::npos ? std::string() : bytes.substr(0, end);
}

void identify_symb(int fd, FileIdentity& identity) {
  const std::string start = bytes_at(fd, 0, sizeof(symb_header_v1));
  if (start.size() < sizeof(symb_header_v1)) return;
  const auto header = symb_load<symb_header_v1>(start.data());
  sym_info info;
  info.os = symb_string(fd, header.os);
  info.arch = symb_string(fd, header.arch);
  info.debug_id = symb_string(fd, header.debug_id);
  info.debug_file = symb_string(fd, header.debug_file);
  info.code_id = symb_string(fd, header.code_id);
  info.code_file = symb_string(fd, header.code_file);
  take_symbol_identity(info, identity);
}

void identify_foreign(int fd, std::string_view path, FileIdentity& identity) {
  constexpr size_t kStart = 4096;
  const std::string start = bytes_at(fd, 0, kStart);
  switch (identity.kind) {
    case FileKind::kPortablePdb:
      identity.debug_file = last_component(path);
      identity.debug_id = portable_pdb_id(start);
      break;
    case FileKind::kElf:
      identity.architecture = elf_architecture(start);
      break;
    case FileKind::kMachO:
      identity.architecture = mach_o_architecture(start);
      break;
    default:
      break;
  }
}

void read_identity(int fd, const std::string& path, FileIdentity& identity) {
  switch (identity.kind) {
    case FileKind::kPdb:
      identify_pdb(fd, path, identity);
      break;
    case FileKind::kImage:
      identify_image(path, identity);
      break;
    case FileKind::kSymbolText:
      identify_text(fd, identity);
      break;
    case FileKind::kSymb:
      identify_symb(fd, identity);
      break;
    default:
      identify_foreign(fd, path, identity);
      break;
  }
}

void number_or_null(JsonWriter& json, std::string_view name, std::optional<uint32_t> number) {
  if (number) {
    json.field(name, uint64_t{*number});
  } else {
    json.null_field(name);
  }
}

std::string json_of(const std::string& path, const FileIdentity& identity) {
  JsonWriter json;
  json.begin_object().field("path", path).text_or_null("kind", identity.kind_name);
  json.text_or_null("architecture", identity.architecture);
  json.text_or_null("debug_file", identity.debug_file);
  json.text_or_null("debug_id", identity.debug_id);
  json.text_or_null("code_file", identity.code_file);
  json.text_or_null("code_id", identity.code_id);
  number_or_null(json, "image_size", identity.image_size);
  number_or_null(json, "time_stamp", identity.time_stamp);
  json.text_or_null("tree_path", identity.place_in_tree());
  if (!identity.error.empty()) json.field("error", identity.error);
  return json.end_object().line();
}

// After a failed read, with its `errno`.
std::string why_not_read(const std::string& path) {
  const std::string reason = strerror(errno);
  struct stat status;
  const bool other = stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
  return other ? "not a regular file" : reason;
}

}  // namespace

std::string FileIdentity::place_in_tree() const {
  if (!is_tree_component(debug_file) || !is_tree_component(debug_id)) return {};
  return tree_path("", debug_file, debug_id, /*binary=*/kind == FileKind::kSymb).substr(1);
}

FileIdentity identify_file(const std::string& path) {
  FileIdentity identity;
  const FileDescriptor file(open_regular(path.c_str()));
  std::string start;
  errno = file.is_open() ? 0 : errno;
  if (file.is_open()) start = bytes_at(file.get(), 0, kFileKindBytes);
  if (start.empty() && errno != 0) {
    identity.error = why_not_read(path);
    return identity;
  }
  identity.kind = file_kind(start);
  identity.kind_name = kind_name(identity.kind);
  read_identity(file.get(), path, identity);
  return identity;
}

int identify_files(const std::vector<std::string>& paths) {
  int status = 0;
  for (const std::string& path : paths) {
    const FileIdentity identity = identify_file(path);
    if (identity.kind == FileKind::kUnknown) status = 1;
    if (!write_file(STDOUT_FILENO, json_of(path, identity))) {
      report_errno("failed to write");
      return 1;
    }
  }
  return status;
}

}  // namespace symforge_internal
