// PDBParser: turns one PDB (with or without its PE image), or one PE beside an already converted
// symbol file, into the lines of a Breakpad text symbol file.
//
//   PDBParser parser(/*with_inlines=*/true);
//   TextBuffer text;
//   parser.load("a.pdb", nullptr, nullptr, text);
//   parser.printBreakpadSymbols(text, nullptr);
//
// A parser is used once, by one thread. All failures of a file are pdb_exceptions with the text
// that the user is shown, and warnings go to standard error. Some damage ends the process instead:
// assertions, range checks and exceptions of the standard library (out_of_range, bad_alloc), which
// nobody catches, and a page size of 0 (SIGFPE). Records stay in the mapped file: the tables hold
// handles into the mapping, which the parser owns.
//
// Addresses are RVAs (relative to the image base), 32 bits wide, and wrap; sizes are in bytes.
//
// The operations stand in one file a topic: root_stream.cc, name_stream.cc, dbi_stream.cc,
// section_map.cc, type_lookups.cc, frame_data.cc (the container's streams); module_stream.cc,
// source_files.cc, module_functions.cc, public_symbols.cc, line_records.cc, param_sizes.cc (the
// modules' and what is made of them); print_sections.cc, print_functions.cc, inline_sites.cc (what
// is printed); pe_headers.cc, unwind_cfi.cc (the PE).

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/text_buffer.h"
#include "symforge/src/PDBHeaders.h"
#include "symforge/src/StreamReader.h"
#include "symforge/src/WinStructs.h"
#include "symforge/src/emit/function_list.h"
#include "symforge/src/emit/function_record.h"
#include "symforge/src/emit/inline_tree.h"
#include "symforge/src/pdb/binary_annotations.h"
#include "symforge/src/pdb/codeview.h"
#include "symforge/src/pdb/frame_data.h"
#include "symforge/src/pdb/inlinee_lines.h"
#include "symforge/src/pdb/name_stream.h"
#include "symforge/src/pdb/public_functions.h"
#include "symforge/src/pdb/source_files.h"
#include "symforge/src/pdb/type_names.h"
#include "symforge/src/pdb/type_table.h"
#include "symforge/src/utils.h"

namespace symforge_internal {

// The opening of an inline site, undecoded.
struct InlineFunctionRecord {
  uint32_t inlinee = 0;
  DataPtr<unsigned char> binary_annotations;
  uint32_t binary_annotations_len = 0;  // bytes, padding included
};

using SectionHeaders = std::vector<IMAGE_SECTION_HEADER>;

// Replaces a source file's name in FILE lines: gets the name and its length in bytes (no terminator
// is promised), and gives a NUL-terminated one that lives until the next call.
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
  // `exe` is appended to `out`, as text. `exe` null: a PE of the PDB's name with the extension exe
  // or dll is tried. `sympath`: root of the symbol tree, or null; with a PDB its folders for this
  // PDB are made, and where they cannot be the process ends with status 255. Paths are not kept.
  // Throws pdb_exception; returns normally when no PE was found beside a PDB.
  void load(const char* pdb, const char* exe, const char* sympath, TextBuffer& out);

  // Appends the whole symbol file to `out`, in the PE-only mode what the PE adds to the one that is
  // there. `fileMod` may be null. Throws pdb_exception; `out` then holds the lines so far.
  void printBreakpadSymbols(TextBuffer& out, FileMod* fileMod);

  // Debug identifier: GUID in upper-case digits, age in lower-case ones. Empty in the PE-only mode.
  const std::string& debug_id() const { return m_debug_id; }

  // Who the symbol file of the PDB belongs to, from the PDB and the image themselves and not from
  // lines of the text. `os` and `arch` stay empty. After load() of a PDB.
  sym_info identity() const;

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

  // The frame data of both kinds.
  struct FrameTables {
    FrameDataMap<FPO_DATA> v1;
    FrameDataMap<FPO_DATA_V2> v2;
  };

  // load() and what it leans on: PDBParser.cc, root_stream.cc.
  void loadPdb(const char* pdb, const char* sympath);
  void findSymbolFileOfPe(const char* exe, const char* sympath, TextBuffer& out);
  void readPeHeaders(const char* filename);
  static std::string_view lastComponent(std::string_view path);
  // Fills m_streams, m_debug_id and m_nameIndices, and makes the folders of this PDB below
  // `sympath` unless it is null. `*res` tells of every failure that does not throw.
  void readRootStream(const char* sympath, bool* res);
  bool readNamedStreams(StreamReader& names, uint32_t size);
  // Throws std::out_of_range for a stream that does not exist.
  const StreamPair& getStream(size_t number) const { return m_streams.at(number); }
  void loadNameStream(NameStream& names);

  // The DBI stream: dbi_stream.cc. To be called in this order.
  const StreamPair& debugInfoStream() const;
  void printHeader(const DBIHeader* header, TextBuffer& out);
  Modules readModuleList(StreamReader& reader, const DBIHeader& header) const;
  DataPtr<DBIDebugHeader> readDebugHeader(StreamReader& reader, const DBIHeader& header) const;
  // Throws pdb_exception for a PDB with a map of tokens, as managed code has.
  static void refuseTokenMap(const DBIDebugHeader& debugHeader);

  // Section headers and address mapping: section_map.cc.
  void readSections(const DBIDebugHeader& debugHeader);
  void readSectionHeaders(uint32_t headerStream, SectionHeaders& headers);
  void readOMAPData(uint32_t orig_section_idx, uint32_t omap_to_id, uint32_t omap_from_id);
  void readOMAPDataDirection(uint32_t omap_stream_id, std::vector<OmapEntry>& omap_data);
  // RVA of `address` bytes into section `section` (from 1); with section 0 `address` itself.
  // Throws std::out_of_range for a section that does not exist.
  uint32_t mapAddressOmap(uint32_t address, uint32_t section) const {
    return section == 0 ? address : toFinalImage(address + sectionBase(section));
  }
  // The two halves of mapAddressOmap: the RVA where a section begins, in the image as it was
  // linked, and the way from there to an RVA of the final image.
  uint32_t sectionBase(uint32_t section) const {
    return (omap_sections.empty() ? sections : omap_sections).at(section - 1).VirtualAddress;
  }
  uint32_t toFinalImage(uint32_t rva) const { return omap_from.empty() ? rva : throughOmap(rva); }
  uint32_t throughOmap(uint32_t rva) const;

  // Types: type_lookups.cc.
  using StringizeFlags = TypeNames::Flags;
  static constexpr StringizeFlags IsTopLevel = StringizeFlags::IsTopLevel;
  void loadTypeStream(KnownStreams type_stream_id, TypeTable& map, bool required);
  // Appends the text of `type` to `output`; `info` selects the id records. True when what was
  // rendered is a function type.
  bool stringizeType(uint32_t type, std::string& output, uint32_t flags, bool info);
  // Where an inlined function is defined: number of the file and line; zeros when no table tells.
  void locateType(uint32_t inlinee, uint32_t& file_id, uint32_t& line_offset) const;

  // Frame data: frame_data.cc.
  template <typename Record>
  void readFPO(uint32_t fpoStream, FrameDataMap<Record>& fpoData);
  void readFrameData(const DBIDebugHeader& debugHeader, FrameTables& frames);
  void printFPO(const FPO_DATA& data, TextBuffer& out);
  void printFPO(const FPO_DATA_V2& data, const NameStream& names, TextBuffer& out);
  void printFrameData(const FrameTables& frames, const NameStream& names, TextBuffer& out);

  // The size of parameters: param_sizes.cc.
  // Takes it from the public name at the function's offset, null when there is none. False, and
  // `func` unchanged, when the name does not tell.
  static bool updateParamSize(FunctionRecord& func, const PublicFunction* global);
  // Takes each function's size of parameters from the frame data of exactly its code, or else from
  // its public name, and marks the public functions that a function covers.
  void settleParamSizes(Functions& functions, PublicFunctions& globals,
                        const FrameTables& frames) const;

  // Module streams. A reader behind the signature of a module's stream; throws pdb_exception for
  // another signature.
  StreamReader openModule(const DBIModuleInfo* module) const;
  // Calls `cb` for each subsection of kind `sig`, in stream order; where it leaves the reader does
  // not matter.
  void readModule(const DBIModuleInfo* module, int32_t sig, const ModuleReadCB& cb);
  void getModuleFiles(const DBIModuleInfo* module, uint32_t& id, UniqueSrcFiles& unique,
                      SrcFileIndex& fileIndices);
  void gatherFiles(Modules& modules, UniqueSrcFiles& unique);
  void getModuleFunctions(const DBIModuleInfo* module, Functions& funcs);
  FunctionRecord& addFunction(Functions& funcs, DataPtr<char>&& name, uint32_t segment,
                              uint32_t offset) const;
  FunctionRecord& readProcedure(StreamReader& reader, Functions& funcs) const;
  void readThunk(StreamReader& reader, Functions& funcs) const;
  void getGlobalFunctions(uint16_t symRecStream, const SectionHeaders& headers,
                          PublicFunctions& globals);
  void resolveFunctionLines(const DBIModuleInfo* module, Functions& funcs, FunctionIndex& index,
                            const UniqueSrcFiles& unique, const SrcFileIndex& fileIndex);
  void resolveInlineFunctions(const DBIModuleInfo* module, const UniqueSrcFiles& unique,
                              const SrcFileIndex& fileIndex);
  // For each module its lines and inlinees. A module whose streams end too early loses what is
  // left of them, silently.
  void resolveModules(const Modules& modules, const UniqueSrcFiles& unique, Functions& functions);

  // Output.
  void printSections(const SectionHeaders& headers, TextBuffer& out);
  void printFiles(const Modules& modules, UniqueSrcFiles& unique, const NameStream& names,
                  FileMod* fileMod, TextBuffer& out);
  void printFunctions(const Functions& funcs, TextBuffer& out);
  void printTypedFunction(const FunctionRecord& func, std::string& name, std::string& parameters,
                          TextBuffer& out);
  void printLines(const FunctionRecord& func, TextBuffer& out) const;
  void addInlineSite(uint32_t inlinee, uint32_t symbolOffset, FunctionRecord& func);
  bool typeNamesMayWarn() const;
  StreamReader& siteReader(uint32_t stream);
  static InlineFunctionRecord readInlineSite(StreamReader& reader, uint32_t size);
  bool allInlineesNamed(StreamReader& reader, std::span<const uint32_t> sites);
  void storeRanges(const InlineFunctionRecord& record, uint32_t tower, uint32_t functionOffset,
                   AnnotationDecoder& decoder);
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
  InlineTree m_inlineTree;  // of the function that is being printed
  // Inline sites of all functions, each one's in a stretch and in the order of the symbols: where
  // the symbol of one that opens stands in its module's stream, kSiteEnd for one that closes. They
  // are read again when their function is printed; there are many more of them than of functions.
  std::vector<uint32_t> m_inlineSites;
  static constexpr uint32_t kSiteEnd = 0;
  std::optional<StreamReader> m_siteReader;  // of the stream that the last function came from
  uint32_t m_siteStream = 0;
  MMapWrapper m_mapping;
  MsfFile m_file;
  std::string m_code_file;  // path of the PE that was opened
  std::string m_pdb_file;   // path as given; empty selects the PE-only mode
  std::string m_debug_id;
  bool m_foundPE = false;
  uint32_t m_PETimeStamp = 0;
  uint32_t m_PESize = 0;  // SizeOfImage
};

// The debug identifier of a PDB. False for every file that load() refuses or answers by an
// exception of the standard library; a damaged image beside an intact PDB is enough for that.
// Warnings are written to standard error as by load(), and what ends the process there ends it
// here.
bool pdb_debug_id(const char* file, std::string& id);

}  // namespace symforge_internal
