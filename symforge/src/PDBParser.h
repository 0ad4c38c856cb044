// PDBParser: turns one PDB (with or without its PE image), or one PE beside an already converted
// symbol file, into the lines of a Breakpad text symbol file.
//
//   PDBParser parser(/*do_inline=*/true);
//   TextBuffer text;
//   parser.load("a.pdb", nullptr, nullptr, text);
//   parser.printBreakpadSymbols(text, nullptr);
//
// A parser is used once. All failures of a file are pdb_exceptions with the text that the user is
// shown; errors of the standard library (range checks, out_of_range, bad_alloc) are not caught and
// end the process. Records stay in the mapped file: the tables hold handles into the mapping, which
// the parser owns.
//
// Addresses are RVAs (relative to the image base), 32 bits wide, and wrap; sizes are in bytes.
//
// The operations stand in one file a topic: root_stream.cc, dbi_stream.cc, section_map.cc,
// type_lookups.cc, frame_data.cc (the container's streams); module_stream.cc, source_files.cc,
// module_functions.cc, public_symbols.cc, line_records.cc, inline_sites.cc (the modules');
// print_functions.cc, pe_image.cc, unwind_cfi.cc (what is printed, and the PE).

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/text_buffer.h"
#include "symforge/src/CodeView.h"
#include "symforge/src/FrameData.h"
#include "symforge/src/Globals.h"
#include "symforge/src/InlineTree.h"
#include "symforge/src/InlineeLines.h"
#include "symforge/src/NameStream.h"
#include "symforge/src/PDBHeaders.h"
#include "symforge/src/SourceFiles.h"
#include "symforge/src/StreamReader.h"
#include "symforge/src/TypeNames.h"
#include "symforge/src/TypeTable.h"
#include "symforge/src/WinStructs.h"

namespace google_breakpad {

// What a module's symbols and lines say of one function, thunk or public symbol. In file order of
// the fields' sources; `operator<` is the order of the output.
struct FunctionRecord {
  // `segment` of a record that is dropped: records are never erased.
  static constexpr uint32_t kDropped = 0xFFFFFFFF;
  // Bits of lineCount that say that a block of lines was attached.
  static constexpr uint32_t kHasLines = 0xF0000000;

  DataPtr<char> name;
  DataPtr<CV_Line> lines;
  uint32_t lineCount = 0;        // number of lines, and kHasLines
  uint32_t segment = 0;          // section number from 1; 0: none
  uint32_t offset = 0;           // RVA; the symbol's raw offset where segment is 0
  uint32_t pre_omap_offset = 0;  // section-relative, before any mapping
  uint32_t pre_omap_len = 0;
  uint32_t fileIndex = 0;  // number of the source file; 0: none
  uint32_t length = 0;
  uint32_t lineOffset = 0;  // section-relative start of the accepted block of lines
  uint32_t typeIndex = 0;   // 0: none
  uint32_t paramSize = 0;
  // The function's inline sites: a stretch of PDBParser's list of all of them, in symbol order.
  uint32_t firstInline = 0;
  uint32_t inlineCount = 0;

  bool dropped() const { return segment == kDropped; }
  bool hasLines() const { return (lineCount & kHasLines) != 0; }

  bool operator<(const FunctionRecord& other) const {
    if (segment != other.segment) return segment < other.segment;
    if (offset != other.offset) return offset < other.offset;
    return typeIndex < other.typeIndex;
  }
};
using Functions = std::vector<FunctionRecord>;

// The opening or the closing of an inline site, undecoded.
struct InlineFunctionRecord {
  enum Annotation : uint32_t { BEGIN = 0, END = 1 };

  Annotation annotation = BEGIN;
  uint32_t inlinee = 0;
  DataPtr<unsigned char> binary_annotations;
  uint32_t binary_annotations_len = 0;  // bytes, padding included
};

using SectionHeaders = std::vector<IMAGE_SECTION_HEADER>;

// Replaces a source file's name in FILE lines: gets the name and its length.
using FileMod = std::function<const char*(const char* name, size_t length)>;

// Visitor of a C13 subsection: the reader stands on the first payload byte, `end` is the stream
// offset one past the last.
using ModuleReadCB = std::function<void(StreamReader& reader, int32_t sig, uint32_t end)>;

class PDBParser {
 public:
  // with_inlines: whether inline sites are resolved and printed.
  explicit PDBParser(bool with_inlines) : do_inline(with_inlines) {}
  ~PDBParser() { close(); }
  PDBParser(const PDBParser&) = delete;
  PDBParser& operator=(const PDBParser&) = delete;

  // Opens the PDB and the PE. `pdb` null: PE-only, the symbol file that stands in the tree for
  // `exe` is copied to `out`. `exe` null: a PE of the PDB's name with the extension exe or dll is
  // tried. `sympath`: root of the symbol tree, or null; with a PDB its folders for this PDB are
  // made. Throws pdb_exception; returns normally when no PE was found beside a PDB.
  void load(const char* pdb, const char* exe, const char* sympath, TextBuffer& out);

  // Appends the whole symbol file to `out`. `fileMod` may be null. Throws pdb_exception.
  void printBreakpadSymbols(TextBuffer& out, FileMod* fileMod);

  // Debug identifier: GUID in upper-case digits, age in lower-case ones. Empty in the PE-only mode.
  const std::string& debug_id() const { return m_debug_id; }

  // Releases the mapping of the PDB.
  void close() { m_mapping.Unmap(); }

 private:
  enum KnownStreams {
    Root = 0,            // previous stream directory; not read
    Streams = 1,         // PDB info stream
    TypeInfoStream = 2,  // type records
    DebugInfo = 3,       // DBI stream
    IPIStream = 4,       // id records
  };

  // One module (compiland) of the DBI stream that has a stream of its own.
  struct Module {
    DataPtr<DBIModuleInfo> info;
    SrcFileIndex srcIndex;
  };
  using Modules = std::vector<Module>;

  // load() and what it leans on: PDBParser.cc, root_stream.cc.
  void loadPdb(const char* pdb, const char* sympath);
  void findSymbolFileOfPe(const char* exe, const char* sympath, TextBuffer& out);
  void readPeHeaders(const char* filename);
  void readRootStream(const char* sympath, bool* res);
  const StreamPair& getStream(size_t number) const { return m_streams.at(number); }
  void loadNameStream(NameStream& names);

  void printHeader(const DBIHeader* header, TextBuffer& out);

  // Section headers and address mapping: section_map.cc.
  void readSectionHeaders(uint32_t headerStream, SectionHeaders& headers);
  void readOMAPData(uint32_t orig_section_idx, uint32_t omap_to_id, uint32_t omap_from_id);
  void readOMAPDataDirection(uint32_t omap_stream_id, std::vector<OmapEntry>& omap_data);
  // RVA of `address` bytes into section `section` (from 1); with section 0 `address` itself.
  // Throws std::out_of_range for a section that does not exist.
  uint32_t mapAddressOmap(uint32_t address, uint32_t section) const;

  // Types: type_lookups.cc.
  using StringizeFlags = TypeNames::Flags;
  static constexpr StringizeFlags IsTopLevel = StringizeFlags::IsTopLevel;
  void loadTypeStream(KnownStreams type_stream_id, TypeTable& map, bool required);
  // Appends the text of `type` to `output`; `info` selects the id records. True when what was
  // rendered is a function type.
  bool stringizeType(uint32_t type, std::string& output, uint32_t flags, bool info);
  // Where an inlined function is defined: number of the file and line; zeros when no table tells.
  void locateType(uint32_t inlinee, uint32_t& file_id, uint32_t& line_offset) const;
  // Takes the parameters' size from the decorated public name at the function's offset. False, and
  // `func` unchanged, when there is none that tells.
  bool updateParamSize(FunctionRecord& func, const Globals& globals) const;

  // Frame data: frame_data.cc.
  template <typename Record>
  void readFPO(uint32_t fpoStream, FrameDataMap<Record>& fpoData);
  void printFPO(const FPO_DATA& data, TextBuffer& out);
  void printFPO(const FPO_DATA_V2& data, const NameStream& names, TextBuffer& out);

  // Module streams.
  void readModule(const DBIModuleInfo* module, int32_t sig, const ModuleReadCB& cb);
  void getModuleFiles(const DBIModuleInfo* module, uint32_t& id, UniqueSrcFiles& unique,
                      SrcFileIndex& fileIndices);
  void getModuleFunctions(const DBIModuleInfo* module, Functions& funcs);
  void getGlobalFunctions(uint16_t symRecStream, const SectionHeaders& headers, Globals& globals);
  void resolveFunctionLines(const DBIModuleInfo* module, Functions& funcs,
                            const UniqueSrcFiles& unique, const SrcFileIndex& fileIndex);
  void resolveInlineFunctions(const DBIModuleInfo* module, const UniqueSrcFiles& unique,
                              const SrcFileIndex& fileIndex);

  // Output.
  void printSections(const SectionHeaders& headers, TextBuffer& out);
  void printFunctions(const Functions& funcs, TextBuffer& out);
  bool allInlineesNamed(std::span<const InlineFunctionRecord> records);
  void dumpInlineFunctionMap(const FunctionRecord& f, TextBuffer& out);
  void PrintFrameDataUsingEXE(TextBuffer& out);

  const bool do_inline;
  std::vector<StreamPair> m_streams;
  std::map<std::string, int> m_nameIndices;  // named streams
  SectionHeaders sections;                   // of the final image
  SectionHeaders omap_sections;              // before a rewrite of the image; empty: none
  std::vector<OmapEntry> omap_from;          // in file order
  TypeTable typemap;                         // type records
  TypeTable typeinfomap;                     // id records
  TypeNames m_typeNames{typemap, typeinfomap};
  InlineeLineMap inlineeLineMap;
  InlineTree m_inlineTree;                          // of the function that is being printed
  std::vector<InlineFunctionRecord> m_inlineSites;  // of all functions, each one's in one stretch
  MMapWrapper m_mapping;
  MsfFile m_file;
  std::string m_code_file;  // path of the PE that was opened
  std::string m_pdb_file;   // path as given; empty selects the PE-only mode
  std::string m_debug_id;
  bool m_foundPE = false;
  uint32_t m_PETimeStamp = 0;
  uint32_t m_PESize = 0;  // SizeOfImage
};

// The debug identifier of a PDB. False, silently, for every file that load() refuses; a damaged
// image beside an intact PDB is enough for that.
bool pdb_debug_id(const char* file, std::string& id);

}  // namespace google_breakpad
