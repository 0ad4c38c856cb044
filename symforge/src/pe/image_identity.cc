#include "symforge/src/pe/image_identity.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "base/file_io.h"
#include "symforge/src/WinStructs.h"
#include "symforge/src/pdb/debug_id.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kMaxDebugEntries = 64;      // linkers write fewer than ten
constexpr size_t kLongestPdbName = 32 * 1024;  // bytes, the longest path of Windows

class ImageFile {
 public:
  explicit ImageFile(const char* path) : file_(open_regular(path)) {}

  // False without an image: no MZ header, or optional header of another kind than PE32 and PE32+.
  bool read_headers();

  // What the headers say, without the record.
  ImageSummary summary() const {
    return {.machine = header_.Machine,
            .time_stamp = header_.TimeDateStamp,
            .size = size_,
            .managed = clr_.VirtualAddress != 0,
            .pdb = std::nullopt};
  }

  // The record that `directory` refers to.
  std::optional<ImageIdentity> read_identity() const;

 private:
  // Reads records at a file position. False if the file ends within them.
  template <typename Record>
  bool read(uint64_t position, Record* records, size_t count = 1) const {
    const size_t size = count * sizeof(Record);
    const ssize_t got = pread(file_.get(), records, size, static_cast<off_t>(position));
    return got >= 0 && static_cast<size_t>(got) == size;
  }

  bool read_directory(uint64_t optional_header);
  void read_sections(uint64_t position, size_t count);
  // Converts an RVA to a file position. False for an RVA that no section has in the file.
  bool position_of(uint32_t rva, uint64_t& position) const;
  bool find_codeview(uint64_t& position) const;
  std::string read_name(uint64_t position) const;

  const FileDescriptor file_;
  IMAGE_FILE_HEADER header_ = {};
  uint32_t size_ = 0;                    // of the image in memory
  IMAGE_DATA_DIRECTORY directory_ = {};  // of the debug entries
  IMAGE_DATA_DIRECTORY clr_ = {};
  std::vector<IMAGE_SECTION_HEADER> sections_;
};

bool ImageFile::read_headers() {
  IMAGE_DOS_HEADER dos;
  if (!file_.is_open() || !read(0, &dos) || dos.e_magic != IMAGE_DOS_SIGNATURE) return false;
  const uint64_t headers = dos.e_lfanew;
  if (!read(headers + offsetof(IMAGE_NT_HEADERS32, FileHeader), &header_)) return false;
  const uint64_t optional_header = headers + offsetof(IMAGE_NT_HEADERS32, OptionalHeader);
  // This field has the same place in both kinds of header.
  static_assert(offsetof(IMAGE_OPTIONAL_HEADER, SizeOfImage) ==
                offsetof(IMAGE_OPTIONAL_HEADER64, SizeOfImage));
  le_uint32 size;
  if (!read(optional_header + offsetof(IMAGE_OPTIONAL_HEADER, SizeOfImage), &size)) return false;
  size_ = size;
  if (!read_directory(optional_header)) return false;
  read_sections(optional_header + header_.SizeOfOptionalHeader, header_.NumberOfSections);
  return true;
}

bool ImageFile::read_directory(uint64_t optional_header) {
  le_uint16 magic;
  if (!read(optional_header, &magic)) return false;
  size_t directories = 0;
  if (magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
    directories = offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory);
  } else if (magic == IMAGE_NT_OPTIONAL_HDR32_MAGIC) {
    directories = offsetof(IMAGE_OPTIONAL_HEADER, DataDirectory);
  } else {
    return false;
  }
  constexpr size_t kEntry = sizeof(IMAGE_DATA_DIRECTORY);
  const uint64_t table = optional_header + directories;
  IMAGE_DATA_DIRECTORY clr;
  if (read(table + IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR * kEntry, &clr)) clr_ = clr;
  return read(table + IMAGE_DIRECTORY_ENTRY_DEBUG * kEntry, &directory_);
}

// The section headers in the file; at most 65535.
void ImageFile::read_sections(uint64_t position, size_t count) {
  sections_.resize(count);
  const ssize_t got = pread(file_.get(), sections_.data(), count * sizeof(IMAGE_SECTION_HEADER),
                            static_cast<off_t>(position));
  sections_.resize(got < 0 ? 0 : static_cast<size_t>(got) / sizeof(IMAGE_SECTION_HEADER));
}

bool ImageFile::position_of(uint32_t rva, uint64_t& position) const {
  for (const IMAGE_SECTION_HEADER& section : sections_) {
    const uint32_t start = section.VirtualAddress;
    if (rva < start || rva - start >= section.SizeOfRawData) continue;
    position = uint64_t{section.PointerToRawData} + (rva - start);
    return true;
  }
  return false;
}

bool ImageFile::find_codeview(uint64_t& position) const {
  uint64_t entries;
  if (directory_.VirtualAddress == 0 || !position_of(directory_.VirtualAddress, entries)) {
    return false;
  }
  const uint32_t present = directory_.Size / static_cast<uint32_t>(sizeof(IMAGE_DEBUG_DIRECTORY));
  for (uint32_t i = 0; i < std::min(present, kMaxDebugEntries); ++i) {
    IMAGE_DEBUG_DIRECTORY entry;
    if (!read(entries + i * sizeof(entry), &entry)) return false;
    if (entry.Type == IMAGE_DEBUG_TYPE_CODEVIEW) {
      return position_of(entry.AddressOfRawData, position);
    }
  }
  return false;
}

std::string ImageFile::read_name(uint64_t position) const {
  std::string name(kLongestPdbName, '\0');
  const ssize_t got = pread(file_.get(), name.data(), name.size(), static_cast<off_t>(position));
  name.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return name.substr(0, name.find('\0'));
}

std::optional<ImageIdentity> ImageFile::read_identity() const {
  uint64_t position;
  CV_INFO_PDB70 record;
  if (!find_codeview(position) || !read(position, &record)) return std::nullopt;
  if (record.CvSignature != kCvSignatureRSDS) return std::nullopt;
  return ImageIdentity{formatDebugId(record.Signature, record.Age),
                       read_name(position + sizeof(record))};
}

}  // namespace

std::string ImageSummary::code_id() const {
  char text[2 * 8 + 1];
  snprintf(text, sizeof text, "%08X%X", time_stamp, size);
  return text;
}

bool begins_like_image(const char* path) {
  const FileDescriptor file(open_regular(path));
  le_uint16 magic;
  return file.is_open() && read(file.get(), &magic, sizeof magic) == sizeof magic &&
         magic == IMAGE_DOS_SIGNATURE;
}

std::optional<ImageSummary> read_image_summary(const char* path) {
  ImageFile image(path);
  if (!image.read_headers()) return std::nullopt;
  ImageSummary summary = image.summary();
  summary.pdb = image.read_identity();
  return summary;
}

std::optional<ImageIdentity> pe_debug_id(const char* path) {
  ImageFile image(path);
  if (!image.read_headers()) return std::nullopt;
  return image.read_identity();
}

std::string pe_code_id(const char* path) {
  ImageFile image(path);
  return image.read_headers() ? image.summary().code_id() : std::string();
}

}  // namespace symforge_internal
