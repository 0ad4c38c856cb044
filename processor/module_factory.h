// ModuleFactory: how a resolver makes the modules that it loads.

#pragma once

#include <string>

#include "processor/source_line_resolver_base_types.h"

namespace google_breakpad {

class ModuleFactory {
 public:
  virtual ~ModuleFactory() = default;
  // A new, empty module that the caller owns.
  virtual SourceLineResolverBase::Module* CreateModule(const std::string& name) const = 0;
};

// Makes BasicSourceLineResolver::Module objects.
class BasicModuleFactory : public ModuleFactory {
 public:
  SourceLineResolverBase::Module* CreateModule(const std::string& name) const override;
};

}  // namespace google_breakpad
