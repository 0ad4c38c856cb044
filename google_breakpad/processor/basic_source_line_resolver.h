// BasicSourceLineResolver: the resolver that a host makes.
//
// It loads Breakpad text symbol files and SYMB data. SYMB data is used in place, so it has to be
// loaded by LoadModuleUsingMemoryBuffer from a block that outlives its symbols: LoadModule and
// LoadModuleUsingMapBuffer release their buffer after the load. A host that wants SYMB files
// through LoadModule derives a class that keeps the buffers:
//
//   class Resolver : public google_breakpad::BasicSourceLineResolver {
//     bool ShouldDeleteMemoryBufferAfterLoadModule() override { return false; }
//   };

#pragma once

#include "google_breakpad/processor/source_line_resolver_base.h"

namespace google_breakpad {

class BasicSourceLineResolver : public SourceLineResolverBase {
 public:
  BasicSourceLineResolver();
  ~BasicSourceLineResolver() override;

  // Internal to the library, like those of the base class.
  class Module;
  struct Function;
  struct InlineFunction;
};

}  // namespace google_breakpad
