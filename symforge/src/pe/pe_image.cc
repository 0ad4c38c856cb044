#include "symforge/src/pe/pe_image.h"

#include <algorithm>

#include "symforge/src/pdb/debug_id.h"

namespace symforge_internal {

namespace {

// The entry of the CodeView record, or null: none, or a directory that leaves the file.
const IMAGE_DEBUG_DIRECTORY* findCodeViewEntry(const PeImage& image) {
  const IMAGE_DATA_DIRECTORY& directory =
      image.ntHeaders()->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
  if (directory.VirtualAddress == 0) return nullptr;
  const uint8_t* bytes = image.ImageRvaToVa(directory.VirtualAddress);
  if (bytes == nullptr) return nullptr;
  const size_t present = std::min<size_t>(directory.Size, image.bytesLeft(bytes));
  const auto* entries = reinterpret_cast<const IMAGE_DEBUG_DIRECTORY*>(bytes);
  const auto* end = entries + present / sizeof(IMAGE_DEBUG_DIRECTORY);
  const auto* found = std::find_if(entries, end, [](const IMAGE_DEBUG_DIRECTORY& entry) {
    return entry.Type == IMAGE_DEBUG_TYPE_CODEVIEW;
  });
  return found == end ? nullptr : found;
}

}  // namespace

PeImage::PeImage(const MMapWrapper& mapping) : m_base(mapping.base()), m_length(mapping.length()) {
  if (!hasDosSignature()) return;
  const uint64_t headers = reinterpret_cast<const IMAGE_DOS_HEADER*>(m_base)->e_lfanew;
  if (headers + sizeof(IMAGE_NT_HEADERS64) > m_length) return;
  m_headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(m_base + headers);

  const uint64_t sections = headers + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                            m_headers->FileHeader.SizeOfOptionalHeader;
  if (sections > m_length) return;
  m_sections = reinterpret_cast<const IMAGE_SECTION_HEADER*>(m_base + sections);
  m_sectionCount = std::min<size_t>(m_headers->FileHeader.NumberOfSections,
                                    (m_length - sections) / sizeof(IMAGE_SECTION_HEADER));
  if (m_sectionCount > kMostScanned) m_index = SectionIndex({m_sections, m_sectionCount});
}

// In a file that is shorter than the header, zeros follow.
bool PeImage::hasDosSignature() const {
  return reinterpret_cast<const IMAGE_DOS_HEADER*>(m_base)->e_magic == IMAGE_DOS_SIGNATURE;
}

bool PeImage::hasDosHeader() const {
  return hasDosSignature() && reinterpret_cast<const IMAGE_DOS_HEADER*>(m_base)->e_lfanew != 0;
}

bool PeImage::isPe32Plus() const {
  return m_headers->FileHeader.SizeOfOptionalHeader == sizeof(IMAGE_OPTIONAL_HEADER64) &&
         m_headers->OptionalHeader.Magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC;
}

// A section is bounded by its size in the file: its zero-filled tail in memory has no bytes here.
// Sums are wider than the fields and do not wrap.
const uint8_t* PeImage::ImageRvaToVa(uint32_t rva) const {
  const IMAGE_SECTION_HEADER* section = nullptr;
  if (m_sectionCount > kMostScanned) {
    const size_t found = m_index.find(rva);
    if (found != SectionIndex::kNone) section = &m_sections[found];
  } else {
    const auto* end = m_sections + m_sectionCount;
    section = std::find_if(m_sections, end, [rva](const IMAGE_SECTION_HEADER& candidate) {
      const uint32_t start = candidate.VirtualAddress;
      return rva >= start && rva - start < candidate.SizeOfRawData;
    });
    if (section == end) section = nullptr;
  }
  if (section == nullptr) return nullptr;
  const uint64_t offset = uint64_t{section->PointerToRawData} + (rva - section->VirtualAddress);
  return offset < m_length ? m_base + offset : nullptr;
}

const uint8_t* PeImage::bytesAt(uint32_t rva, size_t size) const {
  const uint8_t* at = ImageRvaToVa(rva);
  return at != nullptr && bytesLeft(at) >= size ? at : nullptr;
}

bool isClrAssembly(const IMAGE_NT_HEADERS64& headers) {
  return headers.FileHeader.Machine != IMAGE_FILE_MACHINE_PPC64 &&
         headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR]
                 .VirtualAddress != 0;
}

bool pe64_debug_id(const char* path, std::string& debug_id, std::string& debug_file) {
  MMapWrapper mapping;
  if (path == nullptr || !mapping.Map(path)) return false;
  const PeImage image(mapping);
  if (!image.hasDosHeader() || image.ntHeaders() == nullptr || !image.isPe32Plus()) return false;
  const IMAGE_DEBUG_DIRECTORY* entry = findCodeViewEntry(image);
  if (entry == nullptr) return false;
  const auto* record = image.recordAt<CV_INFO_PDB70>(entry->AddressOfRawData);
  if (record == nullptr || record->CvSignature != kCvSignatureRSDS) return false;

  debug_id = formatDebugId(record->Signature, record->Age);
  // A truncated name ends in the zeros after the file.
  debug_file = reinterpret_cast<const char*>(record + 1);
  return true;
}

}  // namespace symforge_internal
