#include "symforge/src/pdb/public_functions.h"

#include <cstring>

#include "symforge/src/pdb/codeview.h"
#include "symforge/src/pdb/undname.h"

namespace symforge_internal {

namespace {

constexpr uint32_t kFunctionFlag = 2;

// Names that differ only after so many bytes count as one: a comparison has to end.
constexpr size_t kMaxComparedBytes = 4096;

}  // namespace

void PublicFunctions::insert(PublicFunction&& symbol) {
  const uint32_t rva = symbol.rva;
  const size_t before = m_symbols.values().size();
  const uint32_t position = m_symbols.insert(rva, std::move(symbol));
  if (position >= before) return;
  PublicFunction& kept = m_symbols.values()[position];
  // NOLINTNEXTLINE(bugprone-use-after-move): only a new symbol is moved
  if (std::strncmp(kept.name.data, symbol.name.data, kMaxComparedBytes) != 0) kept.shared = true;
}

// A record is a 16-bit length and that many bytes; any record long enough for a public symbol is
// read as one, whatever its kind. A record of exactly the fixed part's length takes a name of one
// byte from the next record, and the walk continues one byte off.
void PublicFunctions::getGlobalFunctions(const MsfFile& file, uint16_t symRecStream,
                                         const SectionMap& sections) {
  m_file = &file;
  const StreamPair& stream = file.getStream(symRecStream);
  if (stream.size == 0) return;
  StreamReader reader(stream, file.pages());
  while (reader.getOffset() < stream.size) {
    const uint32_t length = *reader.read<le_uint16>();
    if (length < sizeof(GlobalRecord)) {
      reader.seek(reader.getOffset() + length);
      continue;
    }
    const DataPtr<GlobalRecord> record = reader.read<GlobalRecord>();
    DataPtr<char> name = reader.read<char>(length - sizeof(GlobalRecord));
    undname(name);  // also for dropped symbols: the first record loads the library
    if (record->symType != kFunctionFlag || record->segment > sections.count()) continue;
    file.budget().functions.spend(1);
    const bool decorated = name.data[0] == '@' || name.data[0] == '_';
    insert({std::move(name), sections.mapAddressOmap(record->offset, record->segment),
            record->segment, decorated, /*covered=*/false});
  }
}

}  // namespace symforge_internal
