// FrameTables: the frame data of 32-bit code, in its old form (FPO) and its new one: read into
// tables by code range, printed as STACK WIN lines.

#pragma once

#include <cstdint>
#include <utility>

#include "base/sealed_map.h"
#include "base/text_buffer.h"
#include "symforge/src/PDBHeaders.h"
#include "symforge/src/msf/msf_file.h"
#include "symforge/src/pdb/name_stream.h"

namespace symforge_internal {

class FrameTables {
 public:
  // Reads both tables; stream numbers are those of the debug header, kNoStream for none. The
  // records refer to the mapping. Throws std::out_of_range for a stream that does not exist,
  // pdb_recoverable_exception for an empty one or one that ends too early. To be called once.
  void readFrameData(const MsfFile& file, const DBIDebugHeader& debugHeader);

  // Finds the size of a function's parameters, in bytes, in the frame data of exactly its code; the
  // new form is preferred. False when there is none.
  bool findParamSize(uint32_t rva, uint32_t codeSize, uint32_t& paramSize) const;

  // Appends the STACK WIN lines, those of the new form first, each by RVA and size. Program strings
  // come from `names`. Throws what NameStream::find() throws.
  void printFrameData(const NameStream& names, TextBuffer& out) const;

 private:
  struct RangeOf {
    template <typename Record>
    std::pair<uint32_t, uint32_t> operator()(const DataPtr<Record>& record) const {
      return {record->ulOffStart, record->cbProcSize};
    }
  };
  // By (RVA, bytes of code), which are in the records.
  template <typename Record>
  using FrameDataMap = SealedMap<DataPtr<Record>, RangeOf>;

  template <typename Record>
  static void readFPO(const MsfFile& file, uint16_t fpoStream, FrameDataMap<Record>& fpoData);
  static void printFPO(const FPO_DATA& data, TextBuffer& out);
  static void printFPO(const FPO_DATA_V2& data, const NameStream& names, TextBuffer& out);

  FrameDataMap<FPO_DATA> m_v1;
  FrameDataMap<FPO_DATA_V2> m_v2;
};

}  // namespace symforge_internal
