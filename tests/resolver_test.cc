#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "common/symb.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "processor/logging.h"
#include "processor/module_factory.h"
#include "processor/pathname_stripper.h"
#include "tests/support/code_module.h"
#include "tests/support/process.h"

namespace google_breakpad {
namespace {

using test_support::TemporaryDirectory;
using test_support::TestModule;
using testing::HasSubstr;

constexpr uint64_t kBase = 0x400000;
constexpr char kText[] = "FUNC 1000 10 0 f\nSTACK CFI INIT 1000 10 .cfa: 1\n";

std::string function_at(BasicSourceLineResolver& resolver, const CodeModule* code,
                        uint64_t address) {
  StackFrame frame;
  frame.module = code;
  frame.instruction = address;
  resolver.FillSourceLineInfo(&frame);
  return frame.function_name;
}

// What a call writes to the log.
template <typename Call>
std::string log_of(Call call) {
  testing::internal::CaptureStderr();
  call();
  return testing::internal::GetCapturedStderr();
}

TEST(Resolver, KeepsModulesByDebugIdentifier) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("a.sym", kText);
  const TestModule first(kBase, "1"), second(kBase, "2"),
      same_as_c_string(kBase, std::string("1\0x", 3));
  BasicSourceLineResolver resolver;
  EXPECT_EQ(log_of([&] { EXPECT_FALSE(resolver.LoadModule(nullptr, path)); }), "");
  EXPECT_FALSE(resolver.HasModule(nullptr));
  EXPECT_FALSE(resolver.IsModuleCorrupt(nullptr));

  const std::string loading = log_of([&] { EXPECT_TRUE(resolver.LoadModule(&first, path)); });
  EXPECT_THAT(loading, HasSubstr("INFO: Loading symbols for module a.exe from " + path + "\n"));
  EXPECT_THAT(loading, HasSubstr("INFO: Opening " + path + "\n"));
  EXPECT_THAT(loading, HasSubstr("INFO: Read symbol file " + path + " succeeded\n"));
  EXPECT_THAT(loading, HasSubstr("INFO: Loading symbols for module a.exe from memory buffer\n"));
  EXPECT_TRUE(resolver.HasModule(&first));
  EXPECT_TRUE(resolver.HasModule(&same_as_c_string));
  EXPECT_FALSE(resolver.HasModule(&second));
  EXPECT_THAT(log_of([&] { EXPECT_FALSE(resolver.LoadModuleUsingMapBuffer(&first, "")); }),
              HasSubstr("INFO: Symbols for module a.exe already loaded\n"));

  EXPECT_EQ(function_at(resolver, &first, 0x401000), "f");
  EXPECT_EQ(function_at(resolver, &second, 0x401000), "");
  EXPECT_EQ(function_at(resolver, nullptr, 0x401000), "");
  StackFrame frame;
  frame.instruction = 0x401000;
  EXPECT_EQ(resolver.FindCFIFrameInfo(&frame), nullptr);
  frame.module = &first;
  EXPECT_EQ(std::unique_ptr<CFIFrameInfo>(resolver.FindCFIFrameInfo(&frame))->cfa_rule(), "1");
  EXPECT_NE(std::unique_ptr<WindowsFrameInfo>(resolver.FindWindowsFrameInfo(&frame)), nullptr);

  resolver.UnloadModule(&second);
  resolver.UnloadModule(nullptr);
  EXPECT_TRUE(resolver.HasModule(&first));
  resolver.UnloadModule(&first);
  EXPECT_FALSE(resolver.HasModule(&first));
  EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&first, kText));
}

TEST(Resolver, ACorruptModuleAnswersAsWell) {
  const TestModule code(kBase, "1");
  BasicSourceLineResolver resolver;
  EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&code, std::string(kText) + "bad\n"));
  EXPECT_TRUE(resolver.IsModuleCorrupt(&code));
  EXPECT_EQ(function_at(resolver, &code, 0x40100f), "f");
  resolver.UnloadModule(&code);
  EXPECT_FALSE(resolver.IsModuleCorrupt(&code));
}

// SYMB symbols lie in the buffer that they were loaded from.
TEST(Resolver, TheBufferOfSymbDataIsKept) {
  const TestModule code(kBase, "1");
  char* image = nullptr;
  size_t size = 0;
  ASSERT_TRUE(
      symb_write("MODULE windows x86 1 a.pdb\nFUNC 1000 10 0 f\n1000 10 1 1\n", &image, &size));
  BasicSourceLineResolver resolver;
  EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&code, std::string(image, size)));
  delete[] image;
  EXPECT_EQ(function_at(resolver, &code, 0x40100f), "f");
  resolver.UnloadModule(&code);
  EXPECT_EQ(function_at(resolver, &code, 0x40100f), "");
}

TEST(Resolver, ReadSymbolFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("a.sym", "abc"), empty = directory.file("empty", "");
  const timespec old_times[2] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), old_times, 0), 0);
  char* data = nullptr;
  size_t size = 0;
  ASSERT_TRUE(SourceLineResolverBase::ReadSymbolFile(path, &data, &size));
  EXPECT_EQ(std::string(data, size), std::string("abc\0", 4));
  delete[] data;
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_GT(status.st_atime, 1000);  // marked as used
  EXPECT_EQ(status.st_mtime, 2000);
  ASSERT_TRUE(SourceLineResolverBase::ReadSymbolFile(empty, &data, &size));
  EXPECT_EQ(std::string(data, size), std::string(1, '\0'));
  delete[] data;

  const auto failure = [&](const std::string& file) {
    return log_of(
        [&] { EXPECT_FALSE(SourceLineResolverBase::ReadSymbolFile(file, &data, &size)); });
  };
  EXPECT_THAT(failure(directory / "none"), HasSubstr("ERROR: Could not open " + directory / "none" +
                                                     ", error 2: No such file or directory\n"));
  EXPECT_THAT(failure(directory.path()), HasSubstr("ERROR: Could not slurp "));
  EXPECT_EQ(data, nullptr);
  EXPECT_THAT(
      log_of([&] { EXPECT_FALSE(SourceLineResolverBase::ReadSymbolFile(path, nullptr, &size)); }),
      HasSubstr("ERROR: Could not Read file into Null memory pointer\n"));
}

// A resolver over modules of another kind, which keeps its buffers.
class KeepingResolver : public SourceLineResolverBase {
 public:
  explicit KeepingResolver(ModuleFactory* factory) : SourceLineResolverBase(factory) {}
  bool ShouldDeleteMemoryBufferAfterLoadModule() override { return false; }
};

class FailingModule : public SourceLineResolverBase::Module {
 public:
  explicit FailingModule(bool corrupt) : corrupt_(corrupt) {}
  bool LoadMapFromMemory(char* buffer, size_t) override {
    buffer_ = buffer;
    return false;
  }
  bool IsCorrupt() const override { return corrupt_; }
  void LookupAddress(StackFrame* frame) const override { frame->function_name = buffer_; }
  WindowsFrameInfo* FindWindowsFrameInfo(const StackFrame*) const override { return nullptr; }
  CFIFrameInfo* FindCFIFrameInfo(const StackFrame*) const override { return nullptr; }

 private:
  bool corrupt_;
  const char* buffer_ = nullptr;
};

class FailingFactory : public ModuleFactory {
 public:
  explicit FailingFactory(bool corrupt) : corrupt_(corrupt) {}
  SourceLineResolverBase::Module* CreateModule(const std::string&) const override {
    return new FailingModule(corrupt_);
  }

 private:
  bool corrupt_;
};

TEST(Resolver, KeptBuffersAndFailedLoads) {
  const TestModule code(kBase, "1"), other(kBase, "2");
  KeepingResolver resolver(new FailingFactory(true));
  const std::string log =
      log_of([&] { EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&code, "kept")); });
  EXPECT_THAT(log, HasSubstr("ERROR: Too many error while parsing symbol data for module a.exe\n"));
  EXPECT_TRUE(resolver.IsModuleCorrupt(&code));
  EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&other, "too"));
  StackFrame frame;
  frame.module = &code;
  resolver.FillSourceLineInfo(&frame);
  EXPECT_EQ(frame.function_name, "kept");
  resolver.UnloadModule(&code);
  EXPECT_TRUE(resolver.HasModule(&other));  // its buffer goes with the resolver
}

TEST(ResolverDeathTest, AFailedLoadMustBeCorrupt) {
  const TestModule code(kBase, "1");
  KeepingResolver resolver(new FailingFactory(false));
  EXPECT_DEATH(resolver.LoadModuleUsingMapBuffer(&code, ""), "IsCorrupt\\(\\)");
}

TEST(Logging, LinesAndHelpers) {
  const auto line = [](int severity) {
    std::ostringstream out;
    { LogStream(out, static_cast<LogStream::Severity>(severity), "/a\\b/c.cc", 7) << "x" << 1; }
    { LogStream stream(out, LogStream::SEVERITY_INFO, "c.cc", 8); }
    return out.str();
  };
  EXPECT_THAT(line(0),
              testing::MatchesRegex("[0-9]+s: c.cc:7: INFO: x1\n[0-9]+s: c.cc:8: INFO: \n"));
  EXPECT_THAT(line(1), HasSubstr(": ERROR: x1\n"));
  EXPECT_THAT(line(2), HasSubstr(": CRITICAL: x1\n"));
  EXPECT_THAT(line(7), HasSubstr(": UNKNOWN_SEVERITY: x1\n"));

  const std::pair<const char*, const char*> kPaths[] = {
      {"", ""},        {"a", "a"},      {"/a/b", "b"}, {"c:\\a\\b.c", "b.c"},
      {"a\\b/c", "c"}, {"a/b\\c", "c"}, {"a/", ""},    {"a\\", ""}};
  for (const auto& [path, file] : kPaths) EXPECT_EQ(PathnameStripper::File(path), file) << path;
  EXPECT_EQ(HexString(0) + HexString(255) + HexString(~0ul), "0x00xff0xffffffffffffffff");
}

}  // namespace
}  // namespace google_breakpad
