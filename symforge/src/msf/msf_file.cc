#include "symforge/src/msf/msf_file.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
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

// A page size of 0 ends the process like the division that it leads to.
void raiseForNoPageSize(uint32_t pageSize) {
  if (pageSize != 0) return;
  std::raise(SIGFPE);
  std::abort();
}

}  // namespace

bool MsfFile::readDirectory() {
  if (!hasValidSignature(m_mapping)) return false;
  const PDBHeader* header = reinterpret_cast<const PDBHeader*>(m_mapping.base());
  m_pages = {m_mapping.base(), m_mapping.length(), header->pageSize};
  raiseForNoPageSize(m_pages.pageSize);
  return readStreamDirectory(m_pages, header->directorySize, m_streams);
}

}  // namespace symforge_internal
