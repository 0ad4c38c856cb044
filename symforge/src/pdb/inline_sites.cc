// Inline sites: where inlined functions are defined, by the modules' inlinee lines, and the I lines
// of a function, for which its inline-site symbols are read a second time.

#include "symforge/src/PDBParser.h"
#include "symforge/src/pdb/binary_annotations.h"

namespace symforge_internal {

namespace {

enum InlineeTable : uint32_t { kPlain = 0, kWithExtraFiles = 1 };

void skipExtraFiles(StreamReader& reader) {
  const uint32_t count = *reader.read<le_uint32>();
  if (count != 0) reader.read<le_uint32>(count * static_cast<uint32_t>(sizeof(le_uint32)));
}

}  // namespace

// Payload: uint32 kind of table, then CV_TagInlineeSourceLine, each followed in a table of the
// second kind by a count and the further files of the function.
void PDBParser::resolveInlineFunctions(const DBIModuleInfo* module, const UniqueSrcFiles& unique,
                                       const SrcFileIndex& fileIndex) {
  readModule(module, kInlineeLinesSubsection, [&](StreamReader& reader, int32_t, uint32_t end) {
    const uint32_t kind = *reader.read<le_uint32>();
    if (kind != kPlain && kind != kWithExtraFiles)
      throw pdb_exception("invalid inlinee line source code table");
    while (reader.getOffset() < end) {
      const DataPtr<CV_TagInlineeSourceLine> entry = reader.read<CV_TagInlineeSourceLine>();
      if (kind == kWithExtraFiles) skipExtraFiles(reader);
      // Most functions are inlined in many modules, and the first table that lists one counts.
      if (inlineeLineMap.contains(entry->inlinee)) continue;
      uint32_t file;
      if (!fileIndex.find(entry->file_id, file)) continue;
      inlineeLineMap.insert(entry->inlinee, {unique[file].id, entry->source_line});
    }
  });
}

// `size` is that of the symbol, on whose body the reader stands. One too small for an inline site
// wraps, and the read fails.
InlineFunctionRecord PDBParser::readInlineSite(StreamReader& reader, uint32_t size) {
  constexpr uint32_t kFixed = sizeof(SymbolHeader::type) + sizeof(CV_InlineSite);
  InlineFunctionRecord site;
  site.inlinee = reader.read<CV_InlineSite>()->inlinee;
  site.binary_annotations_len = size - kFixed;
  site.binary_annotations = reader.read<unsigned char>(site.binary_annotations_len);
  return site;
}

// Functions of one module stand together in the list, and so share a reader.
StreamReader& PDBParser::siteReader(uint32_t stream) {
  if (!m_siteReader || m_siteStream != stream) {
    m_siteReader.emplace(getStream(stream), m_file.pages());
    m_siteStream = stream;
  }
  return *m_siteReader;
}

bool PDBParser::typeNamesMayWarn() const {
  return typemap.hasUnknownPointers() || typeinfomap.hasUnknownPointers();
}

// Renders all names for the sake of the warnings, up to the first inlined function that has none.
bool PDBParser::allInlineesNamed(StreamReader& reader, std::span<const uint32_t> sites) {
  std::string scratch;
  for (const uint32_t site : sites) {
    if (site == kSiteEnd) continue;
    reader.seek(site + sizeof(SymbolHeader));
    scratch.clear();
    if (!stringizeType(reader.read<CV_InlineSite>()->inlinee, scratch, IsTopLevel, true))
      return false;
  }
  return true;
}

void PDBParser::storeRanges(const InlineFunctionRecord& record, uint32_t tower,
                            uint32_t functionOffset, AnnotationDecoder& decoder) {
  InlineSite site;
  stringizeType(record.inlinee, m_inlineTree.names(), IsTopLevel, true);
  site.name = m_inlineTree.addName();
  site.tower = tower;
  uint32_t line;
  locateType(record.inlinee, site.file_id, line);
  decoder.beginSite(record.binary_annotations.data, record.binary_annotations_len, functionOffset,
                    line);
  while (decoder.nextRange()) {
    site.offset = decoder.code();
    site.length = decoder.length();
    site.line_offset = decoder.line();
    m_inlineTree.store(site);
  }
}

void PDBParser::dumpInlineFunctionMap(const FunctionRecord& f, TextBuffer& out) {
  if (f.inlineCount == 0) return;
  const std::span<const uint32_t> sites(&m_inlineSites[f.firstInline], f.inlineCount);
  StreamReader& reader = siteReader(f.inlineStream);
  if (typeNamesMayWarn() && !allInlineesNamed(reader, sites)) return;

  m_inlineTree.clear();
  AnnotationDecoder decoder;
  uint32_t tower = 0;
  for (const uint32_t site : sites) {
    if (site == kSiteEnd) {
      --tower;
      continue;
    }
    reader.seek(site);
    const uint32_t size = reader.read<SymbolHeader>()->size;
    storeRanges(readInlineSite(reader, size), tower, f.offset, decoder);
    ++tower;
  }
  m_inlineTree.print(out);
}

}  // namespace symforge_internal
