// BasicSourceLineResolver: the resolver that a host makes.
//
// It loads Breakpad text symbol files and SYMB data. Text is copied into the module's containers
// and its buffer released. SYMB data is used in place: LoadModule and LoadModuleUsingMapBuffer keep
// their buffer until the module is unloaded; with LoadModuleUsingMemoryBuffer the block is the
// host's, may be a read-only mapping, and has to outlive the symbols. SYMB data is not checked by a
// load: symb_validate() of common/symb.h does that for files from strangers.

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
