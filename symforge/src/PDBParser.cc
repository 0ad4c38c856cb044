#include "symforge/src/PDBParser.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace symforge_internal {

namespace {

constexpr size_t kExtensionLength = 3;

const char* architecture(uint16_t machine) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_I386:
      return "x86";
    case IMAGE_FILE_MACHINE_ARM:
      return "arm";
    case IMAGE_FILE_MACHINE_PPC64:
      return "ppc64";
    case IMAGE_FILE_MACHINE_AMD64:
      return "x86_64";
    default:
      return "unknown";
  }
}

void replaceExtension(std::string& path, const char* extension) {
  path.erase(path.size() - kExtensionLength);
  path += extension;
}

// The name of the PE that belongs to a PDB: the first that exists of the two that it can have, or
// else the second. Empty for a path that is too short for an extension.
std::string peBeside(const char* pdb) {
  std::string path = pdb;
  if (path.size() < kExtensionLength) return {};
  replaceExtension(path, "exe");
  if (access(path.c_str(), F_OK) != 0) replaceExtension(path, "dll");
  return path;
}

// A name as it is read back from a MODULE or INFO CODE_ID line: without blanks around it and
// without carriage returns at its end.
std::string nameOnLine(std::string_view name) {
  name = name.substr(0, name.find_last_not_of('\r') + 1);
  const size_t begin = std::min(name.find_first_not_of(' '), name.size());
  return std::string(name.substr(begin, name.find_last_not_of(' ') + 1 - begin));
}

// Time stamp and size of an image, in upper case. A short time stamp is padded with blanks, not
// with zeros.
std::string codeIdentifier(uint32_t timeStamp, uint32_t size) {
  char text[32];
  std::snprintf(text, sizeof(text), "%8X%X", timeStamp, size);
  return text;
}

}  // namespace

void PDBParser::load(const char* pdb, const char* exe, const char* sympath, TextBuffer& out) {
  if (pdb != nullptr)
    loadPdb(pdb, sympath);
  else
    findSymbolFileOfPe(exe, sympath, out);
  readPeHeaders(exe != nullptr ? exe : peBeside(pdb).c_str());
}

void PDBParser::loadPdb(const char* pdb, const char* sympath) {
  m_pdb_file = pdb;
  if (!m_mapping.Map(pdb)) throw pdb_exception("Failed to load PDB file");
  bool loaded;
  readRootStream(sympath, &loaded);
  if (!loaded) throw pdb_exception("Failed to read PDB Root Stream");
}

std::string_view PDBParser::lastComponent(std::string_view path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

void PDBParser::printHeader(const DBIHeader* header, TextBuffer& out) {
  if (header != nullptr) {
    const std::string_view name = lastComponent(m_pdb_file);
    LineWriter line(out, 64 + m_debug_id.size() + name.size());
    line.str("MODULE windows ").str(architecture(header->machine)).chr(' ');
    line.str(m_debug_id).chr(' ').str(name).chr('\n');
  }
  if (!m_foundPE) return;
  const std::string_view name = lastComponent(m_code_file);
  LineWriter line(out, 64 + name.size());
  line.str("INFO CODE_ID ").str(codeIdentifier(m_PETimeStamp, m_PESize)).chr(' ');
  line.str(name).chr('\n');
}

sym_info PDBParser::identity() const {
  sym_info info;
  info.debug_id = m_debug_id;
  info.debug_file = nameOnLine(lastComponent(m_pdb_file));
  if (m_foundPE) {
    info.code_id = nameOnLine(codeIdentifier(m_PETimeStamp, m_PESize));
    info.code_file = nameOnLine(lastComponent(m_code_file));
  }
  return info;
}

void PDBParser::printBreakpadSymbols(TextBuffer& out, FileMod* fileMod) {
  if (m_pdb_file.empty()) {
    printHeader(nullptr, out);
    PrintFrameDataUsingEXE(out);
    return;
  }

  StreamReader reader(debugInfoStream(), m_file);
  const DataPtr<DBIHeader> header = reader.read<DBIHeader>();
  printHeader(header.data, out);
  Modules modules = readModuleList(reader, *header);
  const DataPtr<DBIDebugHeader> debugHeader = readDebugHeader(reader, *header);
  readSections(*debugHeader);
  printSections(sections, out);
  readOMAPData(debugHeader->sectionHdrOriginal, debugHeader->omapToSource,
               debugHeader->omapFromSource);

  UniqueSrcFiles unique;
  gatherFiles(modules, unique);
  NameStream names;
  loadNameStream(names);
  printFiles(modules, unique, names, fileMod, out);

  loadTypeStream(TypeInfoStream, typemap, /*required=*/true);
  loadTypeStream(IPIStream, typeinfomap, /*required=*/false);
  refuseTokenMap(*debugHeader);

  PublicFunctions globals;
  getGlobalFunctions(header->symRecordStream, sections, globals);
  Functions functions;
  for (const Module& module : modules) getModuleFunctions(module.info.data, functions);
  sortFunctions(functions);
  resolveModules(modules, unique, functions);

  FrameTables frames;
  readFrameData(*debugHeader, frames);
  dropDuplicates(functions);
  settleParamSizes(functions, globals, frames);
  mergeGlobals(functions, globals);
  printFunctions(functions, out);

  printFrameData(frames, names, out);
  if (header->machine == IMAGE_FILE_MACHINE_AMD64) PrintFrameDataUsingEXE(out);
}

// The one use that is made of this number. Both 0 and "no such stream" pass.
void PDBParser::refuseTokenMap(const DBIDebugHeader& debugHeader) {
  const uint16_t map = debugHeader.tokenRidMap;
  if (map != 0 && map != kNoStream) throw pdb_exception("Implement me...");
}

void PDBParser::resolveModules(const Modules& modules, const UniqueSrcFiles& unique,
                               Functions& functions) {
  FunctionIndex index(functions);
  for (const Module& module : modules) {
    const DBIModuleInfo* info = module.info.data;
    try {
      resolveFunctionLines(info, functions, index, unique, module.srcIndex);
      if (do_inline) resolveInlineFunctions(info, unique, module.srcIndex);
    } catch (const pdb_recoverable_exception&) {
      // What this module has left is lost; the others go on.
    }
  }
}

}  // namespace symforge_internal
