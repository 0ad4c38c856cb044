#include "symforge/src/emit/inline_sites.h"

#include <string>

namespace symforge_internal {

InlineFunctionRecord readInlineSite(StreamReader& reader, uint32_t size) {
  constexpr uint32_t kFixed = sizeof(SymbolHeader::type) + sizeof(CV_InlineSite);
  InlineFunctionRecord site;
  site.inlinee = reader.read<CV_InlineSite>()->inlinee;
  site.binary_annotations_len = size - kFixed;
  site.binary_annotations = reader.read<unsigned char>(site.binary_annotations_len);
  return site;
}

void InlineSites::beginFunction(uint16_t stream, FunctionRecord& func) const {
  func.inlineStream = stream;
  func.firstInline = static_cast<uint32_t>(m_sites.size());
}

// If rendering names can print warnings, these belong to the time of printing, so the check for a
// name is delayed.
void InlineSites::openSite(uint32_t inlinee, uint32_t symbolOffset, FunctionRecord& func) {
  if (func.inlinesSilenced) return;
  if (!m_typeNames.mayWarn() && !m_typeNames.isFunctionId(inlinee)) {
    func.inlinesSilenced = true;
    func.inlineCount = 0;
    m_sites.resize(func.firstInline);
    return;
  }
  m_sites.push_back(symbolOffset);
  ++func.inlineCount;
}

void InlineSites::closeSite(FunctionRecord& func) {
  if (func.inlinesSilenced) return;
  m_sites.push_back(kSiteEnd);
  ++func.inlineCount;
}

void InlineSites::append(const InlineSites& other, Functions& functions) {
  const auto before = static_cast<uint32_t>(m_sites.size());
  for (FunctionRecord& func : functions) func.firstInline += before;
  m_sites.insert(m_sites.end(), other.m_sites.begin(), other.m_sites.end());
}

// Functions of one module are adjacent in the list, and so share a reader.
StreamReader& InlinePrinter::siteReader(uint32_t stream) {
  if (!m_reader || m_stream != stream) {
    m_reader.emplace(m_file.getStream(stream), m_file.pages());
    m_stream = stream;
  }
  return *m_reader;
}

// Renders names up to the first unnamed inlinee, so that warnings appear even if nothing is
// printed.
bool InlinePrinter::allInlineesNamed(StreamReader& reader, std::span<const uint32_t> sites) {
  std::string scratch;
  for (const uint32_t site : sites) {
    if (site == InlineSites::kSiteEnd) continue;
    reader.seek(site + sizeof(SymbolHeader));
    scratch.clear();
    if (!m_typeNames.stringizeType(reader.read<CV_InlineSite>()->inlinee, scratch,
                                   TypeNames::IsTopLevel, true)) {
      return false;
    }
  }
  return true;
}

void InlinePrinter::storeRanges(const InlineFunctionRecord& record, uint32_t tower,
                                uint32_t functionRva, AnnotationDecoder& decoder) {
  InlineSite site;
  m_typeNames.stringizeType(record.inlinee, m_tree.names(), TypeNames::IsTopLevel, true);
  site.name = m_tree.addName();
  if (m_tree.nameBytes() > m_maxNames)
    throw LimitExceeded("The names of inline sites are too long");
  site.tower = tower;
  uint32_t line;
  m_lines.locateType(record.inlinee, site.file_id, line);
  decoder.beginSite(record.binary_annotations.data, record.binary_annotations_len, functionRva,
                    line);
  while (decoder.nextRange()) {
    site.offset = decoder.code();
    site.length = decoder.length();
    site.line_offset = decoder.line();
    if (m_tree.rangeCount() >= m_maxRanges) throw LimitExceeded("Too many inline sites");
    m_tree.store(site);
  }
}

void InlinePrinter::print(const FunctionRecord& func, TextBuffer& out) {
  if (func.inlineCount == 0) return;
  const std::span<const uint32_t> sites = m_sites.of(func);
  StreamReader& reader = siteReader(func.inlineStream);
  if (m_typeNames.mayWarn() && !allInlineesNamed(reader, sites)) return;

  m_tree.clear();
  AnnotationDecoder decoder;
  uint32_t tower = 0;
  for (const uint32_t site : sites) {
    if (site == InlineSites::kSiteEnd) {
      --tower;
      continue;
    }
    reader.seek(site);
    const uint32_t size = reader.read<SymbolHeader>()->size;
    storeRanges(readInlineSite(reader, size), tower, func.rva, decoder);
    ++tower;
  }
  m_tree.print(out);
}

}  // namespace symforge_internal
