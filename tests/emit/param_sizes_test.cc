// Sizes of parameters, from frame data and from public names.

#include "symforge/src/emit/param_sizes.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "tests/pdb_text.h"

namespace test_support {
namespace {

TEST(ParamSizesTest, PrefersNewFrameDataThenOldThenTheName) {
  const auto sizeOf = [](const std::function<void(SmallPdb&)>& change) {
    const std::string line = recordsOf([&](SmallPdb& pdb, ModuleBuilder& module, uint32_t) {
      module.proc({.name = "f", .length = 8, .type = pdb.type});
      change(pdb);
    });
    return line.substr(0, line.find('\n'));
  };
  const auto v2 = [](SmallPdb& p, uint32_t size) {
    p.frame_data({.start = 0x1000, .code_size = size, .params = 0x30});
  };
  const auto v1 = [](SmallPdb& p) { p.fpo({.start = 0x1000, .code_size = 8, .params = 3}); };
  const auto named = [](SmallPdb& p, const char* n) { p.public_function(n, 1, 0); };
  EXPECT_EQ(sizeOf([&](SmallPdb& p) { v2(p, 8), v1(p), named(p, "_f@4"); }),
            "FUNC 1:1000 8 30 f()");
  EXPECT_EQ(sizeOf([&](SmallPdb& p) { v2(p, 9), v1(p), named(p, "_f@4"); }), "FUNC 1:1000 8 c f()");
  EXPECT_EQ(sizeOf([&](SmallPdb& p) { named(p, "_f@4"); }), "FUNC 1:1000 8 4 f()");
  EXPECT_EQ(sizeOf([&](SmallPdb& p) { named(p, "f@12"); }), "FUNC 1:1000 8 0 f()");
}

TEST(ParamSizesTest, ReadsTheEndOfADecoratedName) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"_f@12", 0xc}, {"@f@12", 0x4},        {"@f@8", 0x0},    {"@f@4", 0x0},
      {"_f", 0x0},    {"@f", 0x0},           {"_f@1x", 0x0},   {"@12", 0x0},
      {"_f@", 0x0},   {"_f@-1", 0xffffffff}, {"@f@-20", 0x0},  {"_f@@8", 0x8},
      {"@f@@9", 0x1}, {"_f@ 12", 0xc},       {"_f@4@12", 0xc}, {"_f@4294967297", 0x1}};
  for (const auto& [name, size] : cases) {
    symforge_internal::FunctionRecord function;
    symforge_internal::PublicFunction global;
    global.name = {name, false};
    global.decorated = true;
    updateParamSize(function, &global);
    EXPECT_EQ(function.paramSize, size) << name;
  }
}

}  // namespace
}  // namespace test_support
