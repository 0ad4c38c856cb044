// The store of the C interface.

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "symforge/symforge.h"
#include "tests/support/process.h"
#include "tests/support/symb_images.h"

namespace {

using test_support::TemporaryDirectory;

std::string text_with(const std::string& function) {
  return "MODULE windows x86 1 a.pdb\nFUNC 1000 20 8 " + function + "\n";
}

std::string symb_with(const std::string& function) {
  return test_support::image_of(text_with(function)).value();
}

class Store {
 public:
  Store(const std::vector<std::string>& trees, uint64_t byte_limit, uint64_t milliseconds) {
    std::vector<const char*> paths;
    for (const std::string& tree : trees) paths.push_back(tree.c_str());
    symforge_store_options options = {};
    options.size = sizeof options;
    options.trees = paths.data();
    options.tree_count = static_cast<uint32_t>(paths.size());
    options.idle_byte_limit = byte_limit;
    options.missing_milliseconds = milliseconds;
    EXPECT_EQ(symforge_store_open(&options, &store_), SYMFORGE_OK);
  }
  ~Store() { symforge_store_close(store_); }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  symforge_store* get() const { return store_; }
  symforge_module* find(const std::string& file, const std::string& identifier,
                        symforge_status expected = SYMFORGE_OK) const {
    symforge_module* module = nullptr;
    EXPECT_EQ(symforge_store_find(store_, file.c_str(), identifier.c_str(), &module), expected)
        << file << " " << identifier << ": " << symforge_last_error();
    return module;
  }
  symforge_store_info info() const {
    symforge_store_info info = {};
    info.size = sizeof info;
    EXPECT_EQ(symforge_store_get_info(store_, &info), SYMFORGE_OK);
    return info;
  }

 private:
  symforge_store* store_ = nullptr;
};

std::string function_of(const symforge_module* module) {
  symforge_answer answer = {};
  answer.size = sizeof answer;
  symforge_frame frame = {};
  frame.size = sizeof frame;
  EXPECT_EQ(symforge_resolve(module, 0x1000, &answer, &frame, 1), SYMFORGE_OK);
  return answer.function == nullptr ? "" : answer.function;
}

// SYMB before text, the first tree before the second; a damaged file is passed over.
TEST(Store, FindsTheFirstFileThatOpens) {
  const TemporaryDirectory directory;
  const std::string first = directory / "1", second = directory / "2";
  directory.file("1/a.pdb/ID/a.sym", text_with("first_text"));
  directory.file("2/a.pdb/ID/a.symb", symb_with("second"));
  directory.file("1/b.dll/ID/b.dll.symb", symb_with("first_symb"));
  directory.file("1/b.dll/ID/b.dll.sym", text_with("wrong"));
  directory.file("1/c.pdb/ID/c.symb", symb_with("damaged").substr(0, 200));
  directory.file("2/c.pdb/ID/c.sym", text_with("second_text"));
  directory.file("1/d.pdb/ID/d.symb", "SYMB");
  directory.file("outside/x.sym", text_with("outside"));
  ASSERT_EQ(symlink("ID", (directory / "1/a.pdb/CODE").c_str()), 0);
  const Store store({first, second, directory / "none"}, 1 << 20, 1000);
  const std::array<const char*, 3> kCases[] = {{"a.pdb", "ID", "first_text"},
                                               {"a.pdb", "CODE", "first_text"},
                                               {"b.dll", "ID", "first_symb"},
                                               {"c.pdb", "ID", "second_text"}};
  for (const auto& [file, identifier, function] : kCases) {
    symforge_module* module = store.find(file, identifier);
    EXPECT_EQ(function_of(module), function);
    symforge_module_close(module);
  }
  store.find("d.pdb", "ID", SYMFORGE_ERROR_FORMAT);
  store.find("none.pdb", "ID", SYMFORGE_ERROR_NOT_FOUND);

  const std::pair<std::string, std::string> kRefused[] = {
      {"..", "outside"}, {"../outside", "x"}, {"a.pdb", ".."}, {"a.pdb", ""},
      {"", "ID"},        {"a.pdb", "ID/."},   {".", "a.pdb"},  {std::string(256, 'a'), "ID"}};
  for (const auto& [file, identifier] : kRefused) {
    store.find(file, identifier, SYMFORGE_ERROR_ARGUMENT);
  }
}

TEST(Store, WrongArguments) {
  const Store store({"t"}, 0, 0);
  symforge_store* other = nullptr;
  symforge_module* module = nullptr;
  const char* const trees[] = {"t", nullptr};
  symforge_store_options without_size = {}, without_trees = {}, without_second_tree = {};
  without_trees.size = without_second_tree.size = sizeof without_trees;
  without_trees.tree_count = 1;
  without_second_tree.trees = trees;
  without_second_tree.tree_count = 2;
  symforge_store_info info = {}, good_info = {};
  good_info.size = sizeof good_info;
  const symforge_status kCases[] = {
      symforge_store_open(nullptr, &other),
      symforge_store_open(&without_size, &other),
      symforge_store_open(&without_trees, &other),
      symforge_store_open(&without_second_tree, &other),
      symforge_store_find(nullptr, "a.pdb", "1", &module),
      symforge_store_find(store.get(), "a.pdb", "1", nullptr),
      symforge_store_find(store.get(), nullptr, "1", &module),
      symforge_store_find(store.get(), "a.pdb", nullptr, &module),
      symforge_store_forget(nullptr),
      symforge_store_get_info(nullptr, &good_info),
      symforge_store_get_info(store.get(), &info),
      symforge_store_get_info(store.get(), nullptr),
  };
  for (size_t i = 0; i < std::size(kCases); ++i) {
    EXPECT_EQ(kCases[i], SYMFORGE_ERROR_ARGUMENT) << "case " << i;
  }
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(module, nullptr);
  symforge_store_close(nullptr);
}

TEST(Store, SharesKeepsAndEvicts) {
  const TemporaryDirectory directory;
  const std::string tree = directory / "t";
  const std::string symb = symb_with("f");
  for (const char* name : {"a", "b", "c"}) {
    directory.file(std::string("t/") + name + "/1/" + name + ".symb", symb);
  }
  auto store = std::make_unique<Store>(std::vector{tree}, 2 * symb.size(), 0);
  symforge_module* a = store->find("a", "1");
  EXPECT_EQ(store->find("a", "1"), a);
  symforge_module_retain(a);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(store->info().held_bytes, symb.size()) << i;
    symforge_module_close(a);
  }
  EXPECT_TRUE(store->info().held_count == 0 && store->info().idle_bytes == symb.size());
  symforge_module* b = store->find("b", "1");
  symforge_module* c = store->find("c", "1");
  symforge_module_close(b);
  symforge_module_close(store->find("a", "1"));  // now more recently used than b
  EXPECT_EQ(store->info().evict_count, 0u);
  symforge_module_close(c);  // a third idle one: b goes
  EXPECT_TRUE(store->info().evict_count == 1 && store->info().idle_count == 2);
  const uint64_t opened = store->info().open_count;
  symforge_module_close(store->find("a", "1"));
  EXPECT_EQ(store->info().open_count, opened);
  b = store->find("b", "1");
  EXPECT_EQ(store->info().open_count, opened + 1);

  // What is forgotten or outlives the store stays valid for those who hold it.
  EXPECT_EQ(symforge_store_forget(store->get()), SYMFORGE_OK);
  EXPECT_TRUE(store->info().idle_count == 0 && store->info().held_count == 0);
  a = store->find("b", "1");
  EXPECT_NE(a, b);
  store.reset();
  EXPECT_EQ(function_of(a) + function_of(b), "ff");
  symforge_module_close(a);
  symforge_module_close(b);
}

TEST(Store, RemembersWhatIsMissing) {
  const TemporaryDirectory directory;
  const std::string tree = directory / "t";
  for (const uint64_t milliseconds : {0, 100, 1 << 30}) {
    const Store store({tree}, 0, milliseconds);
    store.find("a.pdb", "1", SYMFORGE_ERROR_NOT_FOUND);
    const std::string path = directory.file("t/a.pdb/1/a.sym", text_with("f"));
    if (milliseconds > 0) store.find("a.pdb", "1", SYMFORGE_ERROR_NOT_FOUND);
    EXPECT_EQ(store.info().missing_count, milliseconds > 0 ? 1u : 0u);
    if (milliseconds == 100) usleep(150'000);
    if (milliseconds > 100) symforge_store_forget(store.get());
    symforge_module_close(store.find("a.pdb", "1"));
    EXPECT_EQ(store.info().idle_count, 0u) << "kept beyond the limit of 0";
    unlink(path.c_str());
  }
  // Ever new names do not make it grow.
  const Store store({tree}, 0, 1 << 30);
  for (int i = 0; i < 20'000; ++i) {
    symforge_module* module = nullptr;
    symforge_store_find(store.get(), "a.pdb", std::to_string(i).c_str(), &module);
  }
  EXPECT_EQ(store.info().missing_count, 16'384u);
}

// Eight threads look up addresses in modules that come and go: more of them than the limit holds,
// and files that appear and disappear. Run by the thread sanitizer's build as well.
TEST(Store, ThreadsAndModulesThatComeAndGo) {
  constexpr int kThreads = 8, kRounds = 400, kNames = 6;
  const TemporaryDirectory directory;
  const std::string tree = directory / "t";
  const auto name = [](int i) { return "m" + std::to_string(i); };
  std::string size_of_one = symb_with("m0");
  for (int i = 0; i < kNames; ++i) {
    const std::string path = "t/" + name(i) + "/1/" + name(i);
    if (i % 2 == 0) directory.file(path + ".symb", symb_with(name(i)));
    if (i % 2 == 1) directory.file(path + ".sym", text_with(name(i)));
  }
  const Store store({tree}, 2 * size_of_one.size(), 1);
  const std::string hidden = directory / "t/m0/hidden", shown = directory / "t/m0/1";
  std::atomic<int> wrong = 0, missing = 0;
  const auto work = [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const int which = (thread * 7 + round * 5 + round / 3) % kNames;
      if (thread == 0 && round % 8 == 0) rename(shown.c_str(), hidden.c_str());
      if (thread == 0 && round % 8 == 4) rename(hidden.c_str(), shown.c_str());
      if (thread == 1 && round % 50 == 0) symforge_store_forget(store.get());
      symforge_module* module = nullptr;
      const auto status = symforge_store_find(store.get(), name(which).c_str(), "1", &module);
      if (status == SYMFORGE_ERROR_NOT_FOUND && which == 0) ++missing;
      if (status != SYMFORGE_OK && which != 0) ++wrong;
      if (status != SYMFORGE_OK) continue;
      symforge_module_retain(module);
      if (function_of(module) != name(which)) ++wrong;
      symforge_module_close(module);
      if (function_of(module) != name(which)) ++wrong;
      symforge_module_close(module);
      if (store.info().idle_bytes > 2 * size_of_one.size()) ++wrong;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  const symforge_store_info info = store.info();
  EXPECT_EQ(info.held_count, 0u);
  EXPECT_GT(info.evict_count, 0u);
  EXPECT_GT(info.hit_count, 0u);
}

}  // namespace
