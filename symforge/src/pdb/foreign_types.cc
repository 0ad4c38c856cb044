#include "symforge/src/pdb/foreign_types.h"

#include <string>

#include "symforge/src/pdb/codeview.h"
#include "symforge/src/pdb/type_table.h"

namespace symforge_internal {

namespace {

constexpr char kTypesElsewhere[] = "The types of the PDB are in another file";

// The path of the type server that the first record of a type stream names; empty without one.
std::string typeServer(const MsfFile& file) {
  if (file.streams().size() <= kTypeInfoStream) return {};
  const StreamPair& stream = file.getStream(kTypeInfoStream);
  if (stream.size == 0) return {};
  try {
    StreamReader reader(stream, file.pages());
    const DataPtr<TypeInfoHeader> header = reader.read<TypeInfoHeader>();
    if (header->min >= header->max) return {};
    const DataPtr<TypeRecord> record = reader.read<TypeRecord>();
    if (!isTypeServer(record->leafType)) return {};
    if (record->leafType == LEAF::LF_TYPESERVER2) {
      reader.read<LeafTypeServer2>();
    } else {
      reader.read<LeafTypeServer>();
    }
    const std::string name = reader.readString().data;
    return name.empty() ? "an unnamed file" : name;
  } catch (const pdb_exception&) {
    return {};
  }
}

}  // namespace

bool isTypeServer(uint16_t leaf) {
  return leaf == LEAF::LF_TYPESERVER || leaf == LEAF::LF_TYPESERVER2;
}

void refuseForeignTypes(const MsfFile& file, const InfoStream& info) {
  if (info.hasFeature(kMinimalDebugInfo)) {
    throw pdb_refusal(kTypesElsewhere,
                      "this PDB was linked with /DEBUG:FASTLINK, its types and symbols are in the "
                      "object files; link with /DEBUG:FULL");
  }
  const std::string server = typeServer(file);
  if (server.empty()) return;
  throw pdb_refusal(kTypesElsewhere,
                    "the type records of this PDB are in another file, the type "
                    "server " +
                        server +
                        "; link with /DEBUG:FULL and convert "
                        "the PDB of the image");
}

}  // namespace symforge_internal
