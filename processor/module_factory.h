// ModuleFactory: creates the modules that a resolver loads.

#pragma once

#include <string>

#include "processor/source_line_resolver_base_types.h"

namespace google_breakpad {

class ModuleFactory {
 public:
  virtual ~ModuleFactory() = default;
  // Returns a new, empty module that the caller owns.
  virtual SourceLineResolverBase::Module* CreateModule(const std::string& name) const = 0;
};

// Creates BasicSourceLineResolver::Module objects.
class BasicModuleFactory : public ModuleFactory {
 public:
  SourceLineResolverBase::Module* CreateModule(const std::string& name) const override;
};

}  // namespace google_breakpad
