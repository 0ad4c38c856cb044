// The stream directory of an MSF file: the pages of each stream.
//
// The directory is itself a stream: the count of streams, the size in bytes of each, then the page
// numbers of each, all of them uint32. It is found in two steps. The file's header is followed by
// the numbers of index pages; the index pages contain the numbers of the directory's pages.
//
//   header, index page numbers -> index pages -> directory pages

#pragma once

#include <vector>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// Decodes the directory of a mapped file, of `directorySize` bytes by the file's header, and fills
// `streams`, which must be empty, in the order of their numbers. False when a part of it is outside
// the file; reported to standard error only for an index page. Page numbers of streams are not
// checked here. A directory that wants more pages than its index pages can list fails an assertion.
// Throws LimitExceeded for too many streams, and for streams that are larger than the file.
bool readStreamDirectory(const MsfPages& file, uint32_t directorySize,
                         std::vector<StreamPair>& streams);

}  // namespace symforge_internal
