// The stream directory of an MSF file: which pages make up which stream.
//
// The directory is itself a stream: the count of streams, the size in bytes of each, then the page
// numbers of each, all of them uint32. It is found in two steps. Behind the file's header stand the
// numbers of index pages; the index pages hold the numbers of the directory's pages.
//
//   header, index page numbers -> index pages -> directory pages

#pragma once

#include <vector>

#include "symforge/src/StreamReader.h"

namespace symforge_internal {

// Decodes the directory of a mapped file, of `directorySize` bytes as the file's header says, and
// fills `streams`, which must be empty, in the order of their numbers. False when a part of it
// lies outside the file; for an index page there is a message on standard error, otherwise none.
// Page numbers of streams are not checked here. A directory that wants more pages than its index
// pages can list fails an assertion. Throws LimitExceeded for too many streams, and for streams
// that are larger than the file.
bool readStreamDirectory(const MsfPages& file, uint32_t directorySize,
                         std::vector<StreamPair>& streams);

}  // namespace symforge_internal
