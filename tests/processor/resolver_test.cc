#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "google_breakpad/processor/basic_code_module.h"
#include "google_breakpad/processor/basic_source_line_resolver.h"
#include "google_breakpad/processor/log_sink.h"
#include "processor/logging.h"
#include "processor/module_factory.h"
#include "processor/pathname_stripper.h"
#include "tests/support/code_module.h"
#include "tests/support/process.h"
#include "tests/support/symb_images.h"

namespace google_breakpad {
namespace {

using test_support::image_of;
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

// The log output of a call, with information lines.
template <typename Call>
std::string log_of(Call call) {
  SetLogInformation(true);
  testing::internal::CaptureStderr();
  call();
  SetLogInformation(false);
  return testing::internal::GetCapturedStderr();
}

TEST(Resolver, KeepsModulesByDebugIdentifier) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("a.sym", kText);
  const TestModule first(kBase, "1"), second(kBase, "2"),
      same_as_c_string(kBase, std::string("1\0x", 3));
  BasicSourceLineResolver resolver;
  EXPECT_EQ(log_of([&] { EXPECT_FALSE(resolver.LoadModule(nullptr, path)); }), "");
  EXPECT_THAT(log_of([&] { EXPECT_FALSE(resolver.LoadModule(&first, "/no/where")); }),
              HasSubstr("ERROR: Could not open /no/where, error 2: No such file or directory\n"));
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

// Everything except a regular file of an acceptable size is rejected without opening it, because
// opening may block and reading may not end.
TEST(Resolver, OpensRegularFilesOnly) {
  const TemporaryDirectory directory;
  const TestModule code(kBase);
  BasicSourceLineResolver resolver;
  const std::string fifo = directory.path() + "/fifo", huge = directory.file("huge", "");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(truncate(huge.c_str(), off_t{1} << 31), 0);
  const std::pair<std::string, const char*> kCases[] = {
      {fifo, "ERROR: Could not open "},
      {"/dev/zero", "ERROR: Could not open /dev/zero, error 22"},
      {directory.path(), "ERROR: Could not open "},
      {huge, "ERROR: Could not slurp "},
      {"a\n\x1b[31m", "ERROR: Could not open a\\x0a\\x1b[31m, error 2"}};
  for (const auto& [path, message] : kCases) {
    EXPECT_THAT(log_of([&, file = path] { EXPECT_FALSE(resolver.LoadModule(&code, file)); }),
                HasSubstr(message));
  }
  EXPECT_FALSE(resolver.HasModule(&code));
}

// The resolver rejects an unsafe block that it reads itself. One in the host's memory is accepted,
// and lookups do not read beyond its end.
TEST(Resolver, RefusesUnsafeSymbData) {
  const TemporaryDirectory directory;
  const TestModule code(kBase);
  BasicSourceLineResolver resolver;
  for (const size_t size : {4, 5, 167, 300}) {
    std::string block = builders::rich_symb_model().bytes().substr(0, size);
    const std::string path = directory.file("a.symb", block);
    const char* message = "ERROR: Unsafe SYMB data for module a.exe: not loaded\n";
    EXPECT_THAT(log_of([&] { EXPECT_FALSE(resolver.LoadModule(&code, path)); }),
                HasSubstr(message));
    EXPECT_THAT(log_of([&] { EXPECT_FALSE(resolver.LoadModuleUsingMapBuffer(&code, block)); }),
                HasSubstr(message));
    EXPECT_FALSE(resolver.HasModule(&code));

    const builders::GuardedBlock memory(block);
    EXPECT_TRUE(resolver.LoadModuleUsingMemoryBuffer(&code, memory.data(), memory.size()));
    EXPECT_EQ(function_at(resolver, &code, kBase + 0x1000), "");
    resolver.UnloadModule(&code);
  }
}

// For any number of rejected lines.
TEST(Resolver, LimitsMessages) {
  const TestModule code(kBase);
  BasicSourceLineResolver resolver;
  std::string text;
  for (int i = 0; i < 3 * LogLimit::kMaxMessages; ++i) text += "PUBLIC 1 0 p\n";
  for (int i = 0; i < 3 * LogLimit::kMaxMessages; ++i) text += "FUNC 2 ffffffffffffffff 0 f\n";
  const std::string log =
      log_of([&] { EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&code, text)); });
  EXPECT_LT(std::count(log.begin(), log.end(), '\n'), 2 * LogLimit::kMaxMessages + 20);
  EXPECT_THAT(log, HasSubstr("INFO: Further messages of this kind are left out\n"));
}

TEST(Logging, LinesAndHelpers) {
  const std::string lines = log_of([] {
    LogStream(LogStream::SEVERITY_INFO, "/a\\b/c.cc", 7) << "x" << 1;
    LogStream(LogStream::SEVERITY_INFO, "c.cc", 8);
    LogStream(LogStream::SEVERITY_ERROR, "c.cc", 9) << "y";
  });
  EXPECT_THAT(lines, testing::MatchesRegex("[0-9]+s: c.cc:7: INFO: x1\n[0-9]+s: c.cc:8: INFO: \n"
                                           "[0-9]+s: c.cc:9: ERROR: y\n"));

  const std::pair<const char*, const char*> kPaths[] = {
      {"", ""},        {"a", "a"},      {"/a/b", "b"}, {"c:\\a\\b.c", "b.c"},
      {"a\\b/c", "c"}, {"a/b\\c", "c"}, {"a/", ""},    {"a\\", ""}};
  for (const auto& [path, file] : kPaths) EXPECT_EQ(PathnameStripper::File(path), file) << path;
  EXPECT_EQ(HexString(0) + HexString(255) + HexString(~0ul), "0x00xff0xffffffffffffffff");
}

// A host's sink gets errors, and information if it asks for it; nothing else is written.
TEST(Logging, SinkOfTheHost) {
  const TestModule code(kBase);
  std::vector<std::string> lines;
  testing::internal::CaptureStderr();
  SetLogSink(
      [](void* context, const LogLine& line) {
        static_cast<std::vector<std::string>*>(context)->push_back(
            std::string(line.severity == LogSeverity::kInfo ? "info " : "error ") +
            std::string(line.message));
      },
      &lines);
  for (const bool information : {false, true}) {
    SetLogInformation(information);
    BasicSourceLineResolver resolver;
    EXPECT_TRUE(resolver.LoadModuleUsingMapBuffer(&code, "FUNC 1 1 0 f\n\n\nFILE \nzz\n"));
    const BadLines bad = resolver.FindBadLines(&code);
    EXPECT_TRUE(bad.count == 2 && bad.first == 2) << bad.count << " " << bad.first;
    resolver.UnloadModule(&code);
    EXPECT_EQ(resolver.FindBadLines(&code).count, 0u);
  }
  SetLogInformation(false);
  SetLogSink(nullptr, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  const char* const kErrors[] = {"error Line 2: ParseFile on buffer failed",
                                 "error Line 3: ParseLine failed"};
  EXPECT_THAT(lines,
              testing::ElementsAre(kErrors[0], kErrors[1],
                                   "info Loading symbols for module a.exe from memory buffer",
                                   kErrors[0], kErrors[1]));
}

// Each form of contents gives the same answers, by a const resolver, and may be released, written
// over or unloaded as documented.
TEST(Resolver, EveryFormOfContents) {
  const TemporaryDirectory directory;
  const BasicCodeModule code("a.pdb", "1", kBase);
  const std::string block =
      image_of("MODULE windows x86 1 a.pdb\nFUNC 1000 10 0 f\n1000 10 1 1\n").value();
  std::string writable = block;
  const std::string path = directory.file("a.symb", block);
  const builders::GuardedBlock text("FUNC 1000 10 0 f");  // no NUL follows

  using Load = std::function<bool(BasicSourceLineResolver&)>;
  const Load kLoads[] = {
      [&](auto& resolver) { return resolver.LoadModule(&code, path) && unlink(path.c_str()) == 0; },
      // SYMB symbols point into the contents, which the resolver copies.
      [&](auto& resolver) {
        const std::string released(block.data(), block.size());
        return resolver.LoadModuleUsingMapBuffer(&code, std::string_view(released));
      },
      [&](auto& resolver) { return resolver.LoadModuleUsingMapBuffer(&code, kText); },
      [&](auto& resolver) {
        return resolver.LoadModuleUsingMemoryBuffer(&code, writable.data(), writable.size());
      },
      [&](auto& resolver) {
        const char* read_only = text.data();
        return resolver.LoadModuleUsingMemoryBuffer(&code, read_only, text.size());
      }};
  for (const Load& load : kLoads) {
    BasicSourceLineResolver resolver;
    ASSERT_TRUE(load(resolver)) << &load - kLoads;
    const BasicSourceLineResolver& lookups = resolver;
    EXPECT_TRUE(lookups.HasModule(&code) && !lookups.IsModuleCorrupt(&code));
    StackFrame frame;
    frame.module = &code;
    frame.instruction = kBase + 0x100f;
    lookups.FillSourceLineInfo(&frame);
    EXPECT_EQ(frame.function_name, "f") << &load - kLoads;
    frame.function_name.append(100, '.');  // too long to be stored in the string itself
    const char* const name = frame.function_name.data();
    const StackFrame moved = std::move(frame);
    EXPECT_EQ(moved.function_name.data(), name) << "copied instead of moved";
  }
}

}  // namespace
}  // namespace google_breakpad
