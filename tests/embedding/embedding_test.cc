// Modules and lookups of the C interface.

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "builders/guarded_block.h"
#include "builders/symb_builder.h"
#include "common/symb.h"
#include "symforge/symforge.h"
#include "tests/support/process.h"
#include "tests/support/symb_images.h"

// Allocations of the current thread that succeed before one fails; negative: all succeed.
static thread_local int allocations_left = -1;

[[gnu::noinline]] void* operator new(size_t size) {
  if (allocations_left == 0) throw std::bad_alloc();
  if (allocations_left > 0) --allocations_left;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) { return operator new(size); }
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return allocations_left == 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

namespace {

using test_support::TemporaryDirectory;

const std::string kText =
    "MODULE windows x86 515D1 my app.pdb\nINFO CODE_ID 7EB2A my app.exe\nFILE 1 C:\\f.cc\n"
    "INLINE_ORIGIN 0 inner\nINLINE_ORIGIN 1 middle\n"
    "FUNC 1000 20 8 f(int)\nINLINE 0 5 1 1 1000 10\nINLINE 1 6 1 0 1000 8\n1000 20 7 1\nbad line\n"
    "FUNC 2000 10 0 g\nPUBLIC 3000 0 exported\n"
    "STACK WIN 4 1000 20 1 2 3 4 5 6 1 $eip 4 +\nSTACK WIN 0 2000 10 1 2 3 4 5 6 0 1\n"
    "STACK CFI INIT 1000 20 .cfa: $esp 4 + .ra: .cfa 4 - ^ $ebx: 2 $ebp: 1\n"
    "STACK CFI 1008 .cfa: $esp 8 +\n";

struct Close {
  void operator()(symforge_module* module) const { symforge_module_close(module); }
};
using Module = std::unique_ptr<symforge_module, Close>;

Module opened(const std::string& contents) {
  symforge_module* module = nullptr;
  EXPECT_EQ(symforge_module_open_memory(contents.data(), contents.size(), &module), SYMFORGE_OK)
      << symforge_last_error();
  return Module(module);
}

std::string symb_of(const std::string& text) { return test_support::image_of(text).value(); }

std::string text_of(const symforge_answer& answer, const symforge_frame* frames) {
  std::string text = std::to_string(answer.found);
  if (answer.found == SYMFORGE_FOUND_NOTHING) return text;
  text += " " + std::string(answer.function) + "@" + std::to_string(answer.function_start) + "," +
          std::to_string(answer.line_start);
  for (uint32_t i = 0; i < answer.frame_count; ++i) {
    const symforge_frame& frame = frames[answer.first_frame + i];
    text += std::string(" ") + frame.function + "=" + (frame.file == nullptr ? "?" : frame.file) +
            ":" + std::to_string(frame.line);
  }
  return text;
}

std::string resolve(const symforge_module* module, uint64_t address) {
  symforge_frame frames[8] = {};
  frames[0].size = sizeof frames[0];
  symforge_answer answer = {};
  answer.size = sizeof answer;
  EXPECT_EQ(symforge_resolve(module, address, &answer, frames, 8), SYMFORGE_OK);
  return text_of(answer, frames);
}

TEST(Embedding, IdentityAndAnswersOfTextAndSymb) {
  const std::string symb = symb_of(kText);
  const Module text_module = opened(kText), symb_module = opened(symb);
  for (symforge_module* module : {text_module.get(), symb_module.get()}) {
    const bool is_symb = module == symb_module.get();
    symforge_module_info info = {};
    info.size = sizeof info;
    ASSERT_EQ(symforge_module_get_info(module, &info), SYMFORGE_OK);
    EXPECT_EQ(info.format, uint32_t{is_symb ? SYMFORGE_FORMAT_SYMB : SYMFORGE_FORMAT_TEXT});
    EXPECT_EQ(std::string(info.operating_system) + info.architecture + info.debug_identifier +
                  info.code_identifier,
              "windowsx86515D17EB2A");
    // (a SYMB file has the names up to their first blank)
    EXPECT_STREQ(info.debug_file, is_symb ? "my" : "my app.pdb");
    EXPECT_STREQ(info.code_file, is_symb ? "my" : "my app.exe");
    EXPECT_EQ(info.function_count, 2u);
    EXPECT_EQ(info.bad_line_count, is_symb ? 0u : 1u);
    EXPECT_EQ(info.first_bad_line, is_symb ? 0u : 10u);
    EXPECT_GE(info.byte_count, is_symb ? symb.size() : 1000);

    EXPECT_EQ(resolve(module, 0x1004),
              "1 f(int)@4096,4096 inner=C:\\f.cc:7 middle=C:\\f.cc:6 f(int)=C:\\f.cc:5");
    EXPECT_EQ(resolve(module, 0x101f), "1 f(int)@4096,4112 f(int)=C:\\f.cc:7");
    EXPECT_EQ(resolve(module, 0x2000), "1 g@8192,0 g=?:0");
    EXPECT_EQ(resolve(module, 0x3005), "2 exported@12288,0 exported=?:0");
    EXPECT_EQ(resolve(module, 0xfff), "0");
  }

  const Module other = opened("MODULE Linux x86_64 515D1 app\nINFO GENERATOR any\n");
  symforge_module_info info = {};
  info.size = sizeof info;
  ASSERT_EQ(symforge_module_get_info(other.get(), &info), SYMFORGE_OK);
  EXPECT_STREQ(info.code_identifier, "");
}

// Answers of an array continue where the frames did not fit, and have the distance that the caller
// knows, with zeros in fields of later versions.
TEST(Embedding, ArraysInSmallPortions) {
  struct LargerFrame {
    symforge_frame known;
    uint64_t later;
  };
  struct LargerAnswer {
    symforge_answer known;
    uint64_t later;
  };
  const Module module = opened(kText);
  std::vector<uint64_t> addresses;
  for (uint64_t i = 0; i < 1000; ++i) addresses.push_back(0xff0 + 7 * (i * 131 % 1201));
  for (const size_t capacity : {1, 3, 5, 400, 4000}) {
    std::vector<LargerFrame> frames(capacity);
    frames[0].known.size = sizeof(LargerFrame);
    for (size_t at = 0; at < addresses.size();) {
      std::vector<LargerAnswer> answers(addresses.size() - at);
      for (LargerAnswer& answer : answers) answer.later = 1;
      answers[0].known.size = sizeof(LargerAnswer);
      size_t answered = 0;
      const symforge_status status =
          symforge_resolve_array(module.get(), &addresses[at], answers.size(), &answers[0].known,
                                 &frames[0].known, capacity, &answered);
      for (size_t i = 0; i < answered; ++i) {
        std::vector<symforge_frame> own;
        for (uint32_t k = 0; k < answers[i].known.frame_count; ++k) {
          own.push_back(frames[answers[i].known.first_frame + k].known);
        }
        answers[i].known.first_frame = 0;
        ASSERT_EQ(text_of(answers[i].known, own.data()), resolve(module.get(), addresses[at + i]));
        ASSERT_EQ(answers[i].later, 0u);
      }
      at += answered;
      if (status == SYMFORGE_OK) break;
      ASSERT_EQ(status, SYMFORGE_ERROR_TOO_SMALL);
      if (answered > 0) continue;
      ASSERT_GT(answers[0].known.frame_count, capacity);
      ASSERT_STREQ(answers[0].known.function, "f(int)");
      ++at;
    }
  }
}

TEST(Embedding, UnwindData) {
  const std::string symb = symb_of(kText);
  const Module text_module = opened(kText), symb_module = opened(symb);
  for (symforge_module* module : {text_module.get(), symb_module.get()}) {
    symforge_frame_data data = {};
    data.size = sizeof data;
    char text[100] = "unchanged";
    ASSERT_EQ(symforge_find_frame_data(module, 0x1000, &data, text, 8), SYMFORGE_ERROR_TOO_SMALL);
    EXPECT_STREQ(text, "unchanged");
    ASSERT_EQ(data.text_size, 9u);
    ASSERT_EQ(symforge_find_frame_data(module, 0x1000, &data, text, 9), SYMFORGE_OK);
    EXPECT_STREQ(text, "$eip 4 +");
    EXPECT_EQ(data.type, SYMFORGE_FRAME_DATA_PROGRAM);
    EXPECT_EQ(data.prolog_size * 100000 + data.epilog_size * 10000 + data.parameter_size * 1000 +
                  data.saved_register_size * 100 + data.local_size * 10 + data.max_stack_size,
              123456u);
    ASSERT_EQ(symforge_find_frame_data(module, 0x2000, &data, text, 9), SYMFORGE_OK);
    EXPECT_TRUE(data.type == SYMFORGE_FRAME_DATA_FPO && data.allocates_base_pointer == 1);
    EXPECT_EQ(symforge_find_frame_data(module, 0x4000, &data, nullptr, 0),
              SYMFORGE_ERROR_NOT_FOUND);
    EXPECT_EQ(data.text_size, 0u);

    symforge_frame_rules rules = {};
    rules.size = sizeof rules;
    ASSERT_EQ(symforge_find_frame_rules(module, 0x1008, &rules, nullptr, 0),
              SYMFORGE_ERROR_TOO_SMALL);
    ASSERT_EQ(symforge_find_frame_rules(module, 0x1008, &rules, text, rules.text_size),
              SYMFORGE_OK);
    EXPECT_EQ(rules.rule_count, 4u);
    constexpr char kRules[] = ".cfa\0$esp 8 +\0.ra\0.cfa 4 - ^\0$ebp\0001\0$ebx\0002";
    EXPECT_EQ(std::string(text, rules.text_size), std::string(kRules, sizeof kRules));
    EXPECT_EQ(symforge_find_frame_rules(module, 0x2000, &rules, text, sizeof text),
              SYMFORGE_ERROR_NOT_FOUND);
  }
}

// What cannot be opened gets a code and a text, and no module.
TEST(Embedding, OpenErrors) {
  const TemporaryDirectory directory;
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string damaged = symb_of(kText), unsorted = damaged;
  damaged.resize(damaged.size() / 2);
  symb_header header;
  memcpy(&header, unsorted.data(), sizeof header);
  unsorted[header.v1.functions + offsetof(symb_func, address) + 2] = 1;  // above the next function
  const std::tuple<std::string, symforge_status, const char*> kCases[] = {
      {directory / "no\nwhere", SYMFORGE_ERROR_NOT_FOUND, "no\\x0awhere: No such file"},
      {directory.path(), SYMFORGE_ERROR_READ, "Is a directory"},
      {fifo, SYMFORGE_ERROR_READ, "Could not open"},
      {directory.file("empty", ""), SYMFORGE_ERROR_FORMAT, "empty: neither SYMB"},
      {directory.file("pdb", "Microsoft C/C++ MSF 7.00\r\n"), SYMFORGE_ERROR_FORMAT, "neither"},
      {directory.file("short.sym", "MODULE windows x86 1\nFUNC 1 1 0 f\n"), SYMFORGE_ERROR_FORMAT,
       "MODULE"},
      {directory.file("a.symb", damaged), SYMFORGE_ERROR_FORMAT, "a.symb: damaged SYMB data"},
      {directory.file("b.symb", unsorted), SYMFORGE_ERROR_FORMAT, "b.symb: damaged"},
  };
  testing::internal::CaptureStderr();
  for (const auto& [path, status, text] : kCases) {
    symforge_module* module = reinterpret_cast<symforge_module*>(1);
    EXPECT_EQ(symforge_module_open(path.c_str(), &module), status) << path;
    EXPECT_EQ(module, nullptr);
    EXPECT_NE(std::string(symforge_last_error()).find(text), std::string::npos)
        << symforge_last_error();
    EXPECT_STRNE(symforge_status_text(status), symforge_status_text(99));
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "an operation wrote a message";
}

TEST(Embedding, WrongArguments) {
  const Module module = opened(kText);
  const uint64_t address = 0x1000;
  symforge_module* other = nullptr;
  symforge_module_info info = {};
  symforge_answer answer = {}, good_answer = {};
  good_answer.size = sizeof good_answer;
  symforge_frame frame = {}, good_frame = {};
  good_frame.size = sizeof good_frame;
  symforge_frame_data data = {};
  symforge_frame_rules rules = {};
  const symforge_status kCases[] = {
      symforge_module_open(nullptr, &other),
      symforge_module_open("a", nullptr),
      symforge_module_open_memory(nullptr, 1, &other),
      symforge_module_get_info(module.get(), &info),
      symforge_module_get_info(nullptr, &info),
      symforge_resolve(module.get(), address, &answer, &good_frame, 1),
      symforge_resolve(module.get(), address, &good_answer, &frame, 1),
      symforge_resolve(module.get(), address, &good_answer, nullptr, 1),
      symforge_resolve(nullptr, address, &good_answer, &good_frame, 1),
      symforge_resolve_array(module.get(), nullptr, 1, &good_answer, &good_frame, 1, nullptr),
      symforge_resolve_array(module.get(), &address, 1, nullptr, &good_frame, 1, nullptr),
      symforge_find_frame_data(module.get(), address, &data, nullptr, 0),
      symforge_find_frame_rules(module.get(), address, &rules, nullptr, 0),
  };
  for (size_t i = 0; i < std::size(kCases); ++i) {
    EXPECT_EQ(kCases[i], SYMFORGE_ERROR_ARGUMENT) << "case " << i;
  }
  EXPECT_EQ(symforge_resolve_array(module.get(), nullptr, 0, nullptr, nullptr, 0, nullptr),
            SYMFORGE_OK);
  symforge_module_close(nullptr);
  symforge_module_retain(nullptr);
}

// Each operation is repeated with its first, second, ... allocation failing, until it succeeds.
TEST(Embedding, OutOfMemory) {
  const TemporaryDirectory directory;
  const std::string text = directory.file("t/a.pdb/1/a.sym", kText);
  const std::string symb = directory.file("a.symb", symb_of(kText));
  const Module module = opened(kText);
  const std::string tree = directory / "t";
  const char* const trees[] = {tree.c_str()};
  symforge_store_options options = {};
  options.size = sizeof options;
  options.trees = trees;
  options.tree_count = 1;
  options.missing_milliseconds = 1000;

  symforge_frame frames[8] = {};
  frames[0].size = sizeof frames[0];
  symforge_answer answer = {};
  answer.size = sizeof answer;
  symforge_frame_data data = {};
  data.size = sizeof data;
  symforge_frame_rules rules = {};
  rules.size = sizeof rules;
  char space[100];
  const auto in_store = [&](const char* name) {
    symforge_store* store = nullptr;
    if (const auto status = symforge_store_open(&options, &store)) return status;
    symforge_module* found = nullptr;
    const symforge_status status = symforge_store_find(store, name, "1", &found);
    symforge_module_close(found);
    symforge_store_close(store);
    return status;
  };
  const auto open = [](const std::string& path) {
    symforge_module* opened_module = nullptr;
    const symforge_status status = symforge_module_open(path.c_str(), &opened_module);
    EXPECT_EQ(opened_module != nullptr, status == SYMFORGE_OK);
    symforge_module_close(opened_module);
    return status;
  };
  const std::function<symforge_status()> kOperations[] = {
      [&] { return open(text); },
      [&] { return open(symb); },
      [&] { return symforge_resolve(module.get(), 0x1004, &answer, frames, 8); },
      [&] { return symforge_find_frame_data(module.get(), 0x1004, &data, space, 100); },
      [&] { return symforge_find_frame_rules(module.get(), 0x1004, &rules, space, 100); },
      [&] { return in_store("a.pdb"); },
      [&] { return in_store("b.pdb"); },
  };
  for (const auto& operation : kOperations) {
    symforge_status status = SYMFORGE_ERROR_MEMORY;
    int allocations = 0;
    for (; status == SYMFORGE_ERROR_MEMORY && allocations < 10000; ++allocations) {
      allocations_left = allocations;
      status = operation();
      allocations_left = -1;
    }
    EXPECT_TRUE(status == SYMFORGE_OK || &operation == std::end(kOperations) - 1)
        << "operation " << &operation - kOperations << ": " << symforge_last_error();
  }
}

TEST(Embedding, LogCallback) {
  std::vector<std::string> lines;
  const auto take = [](void* context, int32_t severity, const char* message) {
    static_cast<std::vector<std::string>*>(context)->push_back(std::to_string(severity) + message);
  };
  for (const int32_t lowest : {SYMFORGE_LOG_ERROR, SYMFORGE_LOG_INFORMATION}) {
    symforge_set_log(take, &lines, lowest);
    opened("MODULE windows x86 1 a.pdb\nPUBLIC 1 0 p\nPUBLIC 1 0 q\n");
  }
  symforge_set_log(nullptr, nullptr, 0);
  opened("MODULE windows x86 1 a.pdb\nzz\n");
  ASSERT_EQ(lines.size(), 3u) << testing::PrintToString(lines);
  EXPECT_EQ(lines[0], "1Line 3: ParsePublicSymbol failed");
  EXPECT_EQ(lines[1], "0Store failed, address 0x1 is already present");
  EXPECT_EQ(lines[2], lines[0]);
}

}  // namespace
