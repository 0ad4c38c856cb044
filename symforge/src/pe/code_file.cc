// The two ways in which a PE takes part in a conversion: its identity for INFO CODE_ID, and,
// without a PDB, the symbol file in the tree that its debug record leads to.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "common/symb_text.h"
#include "symforge/src/PDBParser.h"
#include "symforge/src/pe/pe_image.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

namespace {

constexpr std::string_view kCodeId = "INFO CODE_ID";

// Reads one record at the file's position. False when the file ends before it does.
template <typename Record>
bool readRecord(std::FILE* file, Record& record) {
  return std::fread(&record, sizeof(record), 1, file) == 1;
}

// Null for what cannot be opened, and for FIFOs and devices, which would block or have side
// effects.
std::FILE* openFile(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return nullptr;
  struct stat status;
  std::FILE* file = nullptr;
  const bool readable =
      fstat(fd, &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
  if (readable) file = fdopen(fd, "rb");
  if (file == nullptr) close(fd);
  return file;
}

[[noreturn]] void refuseClr() { throw pdb_exception(kClrNotSupported); }

// Bytes of the image in memory.
uint32_t imageSize(const IMAGE_NT_HEADERS64& headers) {
  switch (headers.OptionalHeader.Magic) {
    case IMAGE_NT_OPTIONAL_HDR64_MAGIC:
      if (isClrAssembly(headers)) refuseClr();
      return headers.OptionalHeader.SizeOfImage;
    case IMAGE_NT_OPTIONAL_HDR32_MAGIC: {
      const auto& header32 = reinterpret_cast<const IMAGE_NT_HEADERS32&>(headers).OptionalHeader;
      const auto& clr = header32.DataDirectory[IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR];
      if (clr.VirtualAddress != 0) refuseClr();
      return header32.SizeOfImage;
    }
    default:
      throw pdb_exception("Unknown image format");
  }
}

// Keeps what stands behind the last separator, of either kind.
void keepLastComponent(std::string& path) {
  path.erase(0, path.rfind('/') + 1);
  path.erase(0, path.rfind('\\') + 1);
}

[[noreturn]] void refuseSecondPe() { throw pdb_exception("exe/dll already exists"); }

TextBuffer readWhole(const std::string& path, const char* failure) {
  TextBuffer content;
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  // What is read in part would be written back in part, over the whole file.
  if (!file.is_open() || !read_file(file.get(), content)) throw pdb_exception(failure);
  return content;
}

void copyText(const std::string& path, TextBuffer& out) {
  const TextBuffer text = readWhole(path, "failed to open sym file");
  const std::string_view rest = text.view();
  const bool named =
      rest.starts_with(kCodeId) || rest.find("\nINFO CODE_ID") != std::string_view::npos;
  if (named) refuseSecondPe();
  out.append(rest);
  if (!rest.empty() && rest.back() != '\n') out.append("\n");
}

void copySymb(const std::string& path, TextBuffer& out) {
  TextBuffer image = readWhole(path, "failed to open binary sym file");
  if (!symb_read(image.data(), image.size(), out))
    throw pdb_exception("failed to parse binary sym file");
  if (out.view().find(kCodeId) != std::string_view::npos) refuseSecondPe();
}

}  // namespace

// A file that cannot be opened is no error: the symbol file then lacks what the PE would give.
void PDBParser::readPeHeaders(const char* filename) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(openFile(filename), std::fclose);
  if (file == nullptr) return;
  m_code_file = filename;
  IMAGE_DOS_HEADER dos;
  if (!readRecord(file.get(), dos)) throw pdb_exception("Error reading PE header");
  if (dos.e_magic != IMAGE_DOS_SIGNATURE) throw pdb_exception("Invalid PE header detected");
  // A 32-bit image has smaller headers, but as many bytes have to be there.
  IMAGE_NT_HEADERS64 headers;
  std::fseek(file.get(), uint32_t{dos.e_lfanew}, SEEK_SET);
  if (!readRecord(file.get(), headers)) throw pdb_exception("Error reading PE NT header");
  m_PETimeStamp = headers.FileHeader.TimeDateStamp;
  m_PESize = imageSize(headers);
  m_foundPE = true;
}

void PDBParser::findSymbolFileOfPe(const char* exe, const char* sympath, TextBuffer& out) {
  std::string debug_id;
  std::string debug_file;
  if (exe == nullptr || !pe64_debug_id(exe, debug_id, debug_file))
    throw pdb_exception("Not a valid 64bit PE");
  if (debug_file.empty() || debug_id.empty())
    throw pdb_exception("PE with empty debug file name or id");
  keepLastComponent(debug_file);

  const auto inTree = [&](bool binary) {
    return sympath == nullptr ? std::string()
                              : existing_tree_path(sympath, debug_file, debug_id, binary);
  };
  if (const std::string path = inTree(/*binary=*/false); !path.empty()) {
    copyText(path, out);
  } else if (const std::string image = inTree(/*binary=*/true); !image.empty()) {
    copySymb(image, out);
  } else {
    throw pdb_exception("PE file without matching pdb or sym file");
  }
}

}  // namespace symforge_internal
