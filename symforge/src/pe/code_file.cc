#include "symforge/src/pe/code_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "base/file_io.h"
#include "base/path_names.h"
#include "common/symbol_text.h"
#include "symforge/src/pdb_exception.h"
#include "symforge/src/pe/pe_image.h"
#include "symforge/src/pe/unwind_cfi.h"
#include "symforge/src/pe/unwind_rules.h"

namespace symforge_internal {

namespace {

constexpr size_t kExtensionLength = 3;

void replaceExtension(std::string& path, const char* extension) {
  path.erase(path.size() - kExtensionLength);
  path += extension;
}

enum class FileKind { kNone, kRegular, kOther };

// FIFOs and sockets count as missing: opening one could block. A sandboxed process cannot open
// folders, which are detected by their names.
FileKind kindOf(const char* path, const FileDescriptor& file) {
  struct stat status;
  if (!file.is_open()) {
    const bool folder = stat(path, &status) == 0 && S_ISDIR(status.st_mode);
    return folder && access(path, R_OK) == 0 ? FileKind::kOther : FileKind::kNone;
  }
  if (fstat(file.get(), &status) != 0 || S_ISFIFO(status.st_mode)) return FileKind::kNone;
  return S_ISREG(status.st_mode) ? FileKind::kRegular : FileKind::kOther;
}

// For a folder or a device.
[[noreturn]] void throwNoImage(const FileDescriptor& file) {
  TextBuffer start;
  const bool read = file.is_open() && read_file(file.get(), start, sizeof(IMAGE_DOS_HEADER));
  const bool whole = read && start.size() == sizeof(IMAGE_DOS_HEADER);
  throw pdb_exception(whole ? "Invalid PE header detected" : "Error reading PE header");
}

[[noreturn]] void throwClr() { throw pdb_exception(kClrNotSupported); }

// Bytes of the image in memory.
uint32_t imageSize(const IMAGE_NT_HEADERS64& headers) {
  switch (headers.OptionalHeader.Magic) {
    case IMAGE_NT_OPTIONAL_HDR64_MAGIC:
      if (isClrAssembly(headers)) throwClr();
      return headers.OptionalHeader.SizeOfImage;
    case IMAGE_NT_OPTIONAL_HDR32_MAGIC: {
      const auto& header32 = reinterpret_cast<const IMAGE_NT_HEADERS32&>(headers).OptionalHeader;
      const auto& clr = header32.DataDirectory[IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR];
      if (clr.VirtualAddress != 0) throwClr();
      return header32.SizeOfImage;
    }
    default:
      throw pdb_exception("Unknown image format");
  }
}

}  // namespace

std::string siblingPePath(const char* pdb) {
  std::string path = pdb;
  if (path.size() < kExtensionLength) return {};
  replaceExtension(path, "exe");
  if (access(path.c_str(), F_OK) != 0) replaceExtension(path, "dll");
  return path;
}

void CodeFile::readPeHeaders(const char* path) {
  const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  const FileKind kind = kindOf(path, file);
  if (kind == FileKind::kNone) return;
  if (kind == FileKind::kOther) throwNoImage(file);
  m_path = path;
  if (!m_mapping.Map(file.get()) || m_mapping.length() < sizeof(IMAGE_DOS_HEADER)) {
    throw pdb_exception("Error reading PE header");
  }
  const PeImage image(m_mapping);
  if (!image.hasDosSignature()) throw pdb_exception("Invalid PE header detected");
  // A 32-bit image has smaller headers, but as many bytes have to be there.
  if (image.ntHeaders() == nullptr) throw pdb_exception("Error reading PE NT header");
  m_machine = image.ntHeaders()->FileHeader.Machine;
  m_timeStamp = image.ntHeaders()->FileHeader.TimeDateStamp;
  m_imageSize = imageSize(*image.ntHeaders());
  m_found = true;
}

std::string CodeFile::identifier() const {
  char text[32];
  std::snprintf(text, sizeof(text), "%8X%X", m_timeStamp, m_imageSize);
  return text;
}

std::string CodeFile::standardIdentifier() const {
  char text[32];
  std::snprintf(text, sizeof(text), "%08X%X", m_timeStamp, m_imageSize);
  return text;
}

void CodeFile::printCodeId(TextBuffer& out) const { printCodeId(identifier(), out); }

void CodeFile::printStandardCodeId(TextBuffer& out) const {
  printCodeId(standardIdentifier(), out);
}

void CodeFile::printCodeId(const std::string& identifier, TextBuffer& out) const {
  if (!m_found) return;
  const std::string_view name = last_component(m_path);
  append_line(out, CodeIdFields{identifier, name});
}

void CodeFile::PrintFrameDataUsingEXE(TextBuffer& out) const {
  if (m_found) printUnwindData(PeImage(m_mapping), out);
}

std::vector<std::string> CodeFile::printUnwindRules(std::span<const CodeRange> functions,
                                                    TextBuffer& out) const {
  if (!m_found) return {};
  return writeUnwindRules(PeImage(m_mapping), functions, out);
}

}  // namespace symforge_internal
