#include "symforge/src/msf/msf_file.h"

#include <cstdio>
#include <cstring>

#include "symforge/src/PDBHeaders.h"
#include "symforge/src/msf/stream_directory.h"

namespace symforge_internal {

namespace {

bool hasValidSignature(const MMapWrapper& mapping) {
  static_assert(MMapWrapper::kGuardBytes >= sizeof(PDBHeader));
  if (std::memcmp(mapping.base(), validSignature, sizeof(PDBHeader::signature)) == 0) return true;
  std::fputs("Input file has an invalid signature\n", stderr);
  return false;
}

bool hasValidHeader(const MMapWrapper& mapping) {
  const auto* header = reinterpret_cast<const PDBHeader*>(mapping.base());
  if (mapping.length() >= sizeof(PDBHeader) && header->pageSize != 0) return true;
  std::fputs("Input file has an invalid header\n", stderr);
  return false;
}

}  // namespace

bool MsfFile::readDirectory() {
  if (!hasValidSignature(m_mapping) || !hasValidHeader(m_mapping)) return false;
  const PDBHeader* header = reinterpret_cast<const PDBHeader*>(m_mapping.base());
  m_budget.emplace(m_mapping.length());
  m_pages = {m_mapping.base(), m_mapping.length(), header->pageSize, &*m_budget};
  return readStreamDirectory(m_pages, header->directorySize, m_streams);
}

}  // namespace symforge_internal
