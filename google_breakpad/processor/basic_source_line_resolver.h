// BasicSourceLineResolver: the concrete resolver that a host creates.
//
// It loads Breakpad text symbol files and SYMB data. Text is parsed into the module's containers,
// and its buffer is then released. SYMB data is used in place: LoadModule maps the file, and
// LoadModuleUsingMapBuffer keeps its copy, until the module is unloaded; both check the data. With
// LoadModuleUsingMemoryBuffer the block belongs to the host, may be a read-only mapping, and must
// outlive the symbols. That load checks nothing: call symb_validate() of common/symb.h first for
// data from untrusted sources.

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
