// Files of the published format: lookups in the text, in its SYMB image, in the text converted back
// from that image, and in the image of that text.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/data.h"
#include "tests/support/lines.h"
#include "tests/support/symb_images.h"
#include "tests/support/symbols.h"

namespace {

using google_breakpad::StackFrame;
using symforge_internal::TextDialect;
using test_support::image_of;
using test_support::is_valid;
using test_support::lines_with;
using test_support::replaced;
using test_support::Symbols;
using test_support::test_cases;
using test_support::test_data;
using test_support::text_of;

// "function file:line | inline file:line | ...", innermost inline frame first. With bases: also the
// first addresses of the function and of its line.
std::string call_chain(const StackFrame& frame, bool with_bases = false) {
  std::ostringstream out;
  out << frame.function_name;
  if (frame.source_line != -1) out << ' ' << frame.source_file_name << ':' << frame.source_line;
  if (with_bases) out << " @" << frame.function_base << ',' << frame.source_line_base;
  for (const StackFrame::Inline& site : frame.inlines) {
    out << " | " << site.name << ' ' << site.source_file_name << ':' << site.source_line;
  }
  return out.str();
}

// All forms of one file. Lookups must return the same in each.
class Forms {
 public:
  explicit Forms(const std::string& text) : text_(text) {
    const std::string image = image_of(text).value();
    EXPECT_TRUE(is_valid(image)) << text;
    back_ = text_of(image, TextDialect::kStandard).value();
    const std::string second_image = image_of(back_).value();
    EXPECT_EQ(text_of(second_image, TextDialect::kStandard).value(), back_) << text;
    forms_.emplace_back(text);
    forms_.emplace_back(image);
    forms_.emplace_back(back_);
    forms_.emplace_back(second_image);
  }

  std::string answer(uint64_t address) const {
    const StackFrame frame = forms_[0].frame(address);
    for (size_t i = 1; i < forms_.size(); ++i) {
      EXPECT_EQ(call_chain(forms_[i].frame(address), true), call_chain(frame, true))
          << "form " << i << " at " << std::hex << address << "\n"
          << text_ << "back:\n"
          << back_;
    }
    return call_chain(frame);
  }
  const std::string& back() const { return back_; }

 private:
  std::string text_;
  std::string back_;
  std::deque<Symbols> forms_;
};

TEST(InlineCalls, FilesOfOtherSystems) {
  for (const char* file : {"published_linux.sym", "published_mac.sym"}) {
    const Forms forms(test_data(file));
    for (const auto& c : test_cases("published_answers.txt", file)) {
      EXPECT_EQ(forms.answer(std::stoul(c.input, nullptr, 16)), c.expected) << file << c.input;
    }
  }
}

// Published text converted back from SYMB keeps its calls with their positions and ranges.
TEST(InlineCalls, TextSurvivesTheRoundTrip) {
  std::string expected = test_data("published_linux.sym");
  const auto replace = [&expected](const std::string& from, const std::string& to) {
    const size_t at = expected.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    expected.replace(at, from.size(), to);
  };
  replace("INFO CODE_ID CD6ADC6E82B2581243FD59DA9C81BD83\n", "");  // needs a name in SYMB
  replace("FUNC m ", "FUNC ");
  EXPECT_EQ(Forms(test_data("published_linux.sym")).back(), expected);
}

TEST(InlineCalls, OddFiles) {
  for (const auto& c : test_cases("published_answers.txt", "odd")) {
    const size_t at = c.input.find(": ");
    EXPECT_EQ(Forms(c.input.substr(at + 2)).answer(std::stoul(c.input, nullptr, 16)), c.expected)
        << c.input;
  }
}

// The calls of a function at 100 to 120 as they come back from SYMB.
TEST(InlineCalls, ComeBackWithWhatIsInsideTheirCallers) {
  for (const auto& c : test_cases("published_answers.txt", "back")) {
    const std::string head =
        "MODULE Linux x86_64 0123 a\nFILE 1 a.cc\nINLINE_ORIGIN 0 g\nINLINE_ORIGIN 1 h\n"
        "FUNC 100 20 0 f\n";
    const std::string lines = "100 10 8 1\n110 10 9 1\n";
    const Forms forms(head + replaced(c.input, {{"; ", "\n"}}) + "\n" + lines);
    for (uint64_t at = 0xF0; at < 0x130; ++at) forms.answer(at);
    const std::string calls = lines_with(forms.back(), {"INLINE "});
    EXPECT_EQ(replaced(calls.substr(0, calls.size() - 1), {{"\n", "; "}}), c.expected) << c.input;
  }
}

// Lookups on text return inline frames for INLINE lines only.
TEST(InlineCalls, TextWithILinesReturnsNoInlines) {
  const Symbols text("FILE 1 a.cc\nFUNC 100 10 0 f\n100 10 6 1\nI 100 4 9 1 0 i\n");
  EXPECT_EQ(call_chain(text.frame(0x100)), "f a.cc:6");
}

// A SYMB file has the lower 32 bits only.
TEST(InlineCalls, TextHasNumbersOf64Bits) {
  const Symbols text(
      "FILE 1 a.cc\nINLINE_ORIGIN 3 g\nFUNC 100 900000000 0 f\n100 800000000 6 1\n"
      "800000100 10 7 1\nINLINE 0 5 1 3 100000000 200000000\n");
  EXPECT_EQ(call_chain(text.frame(0x2ffffffff)), "f a.cc:5 | g a.cc:6");
  EXPECT_EQ(call_chain(text.frame(0x300000000)), "f a.cc:6");
  EXPECT_EQ(call_chain(text.frame(0x800000104)), "f a.cc:7");
}

struct Call {
  int depth;
  int line, file, origin;
  std::vector<std::pair<uint64_t, uint64_t>> ranges;  // first address, end
  bool holds(uint64_t at) const {
    return std::any_of(ranges.begin(), ranges.end(),
                       [at](const auto& r) { return r.first <= at && at < r.second; });
  }
};
struct Row {
  uint64_t begin, end;
  int line, file;
};

// A published function, and lookup results computed from the format's definition.
class Model {
 public:
  Model(std::mt19937& random, uint64_t begin) : random_(random), begin_(begin) {
    end_ = begin + 1 + pick(60);
    for (uint64_t at = begin_; at < end_;) {
      const uint64_t row_end = std::min(end_, at + 1 + pick(8));
      if (pick(8) != 0) rows_.push_back({at, row_end, number(), number()});
      at = row_end;
    }
    add_calls({{begin_, end_}}, 0);
  }

  std::string text() const {
    std::ostringstream out;
    out << "FUNC " << std::hex << begin_ << ' ' << end_ - begin_ << " 0 f" << begin_ << '\n';
    for (const Call& call : calls_) {
      out << std::dec << "INLINE " << call.depth << ' ' << call.line << ' ' << call.file << ' '
          << call.origin << std::hex;
      for (const auto& [first, last] : call.ranges) out << ' ' << first << ' ' << last - first;
      out << '\n';
    }
    for (const Row& row : rows_) {
      out << std::hex << row.begin << ' ' << row.end - row.begin << std::dec << ' ' << row.line
          << ' ' << row.file << '\n';
    }
    return out.str();
  }

  std::string answer(uint64_t at) const {
    std::vector<const Call*> chain;
    for (int depth = 0;; ++depth) {
      const auto call = std::find_if(calls_.begin(), calls_.end(), [&](const Call& c) {
        return c.depth == depth && c.holds(at);
      });
      if (call == calls_.end()) break;
      chain.push_back(&*call);
    }
    const auto row = std::find_if(rows_.begin(), rows_.end(),
                                  [at](const Row& r) { return r.begin <= at && at < r.end; });
    std::string place = row == rows_.end() ? "" : place_of(row->line, row->file);
    std::string inlines;
    for (auto call = chain.rbegin(); call != chain.rend(); ++call) {
      inlines += " | g" + std::to_string((*call)->origin) + " " + (place.empty() ? ":0" : place);
      place = place_of((*call)->line, (*call)->file);
    }
    std::ostringstream out;
    out << 'f' << std::hex << begin_ << (place.empty() ? "" : " ") << place << inlines;
    return out.str();
  }

  uint64_t begin() const { return begin_; }
  uint64_t end() const { return end_; }

 private:
  uint64_t pick(uint64_t count) { return random_() % count; }
  int number() { return static_cast<int>(pick(3)); }
  static std::string place_of(int line, int file) {
    return "file " + std::to_string(file) + ":" + std::to_string(line);
  }

  // Adds calls inside the given ranges: disjoint, often as large as their caller, often in several
  // parts.
  void add_calls(const std::vector<std::pair<uint64_t, uint64_t>>& around, int depth) {
    if (depth > 5 || pick(5) == 0) return;
    std::vector<Call> calls(1 + pick(3));
    for (Call& call : calls) call = {depth, number(), number(), number(), {}};
    for (const auto& [first, last] : around) {
      for (uint64_t at = first; at < last;) {
        const uint64_t end = pick(3) == 0 ? last : std::min(last, at + 1 + pick(12));
        if (pick(3) != 0) calls[pick(calls.size())].ranges.push_back({at, end});
        at = end;
      }
    }
    for (const Call& call : calls) {
      if (call.ranges.empty()) continue;
      calls_.push_back(call);
      add_calls(call.ranges, depth + 1);
    }
  }

  std::mt19937& random_;
  uint64_t begin_;
  uint64_t end_ = 0;
  std::vector<Row> rows_;
  std::vector<Call> calls_;
};

std::string head() {
  std::string text = "MODULE mac arm64 0123 a\n";
  for (int i = 0; i < 3; ++i)
    text += "FILE " + std::to_string(i) + " file " + std::to_string(i) + "\n";
  for (int i = 0; i < 3; ++i) {
    text += "INLINE_ORIGIN " + std::to_string(i) + " g" + std::to_string(i) + "\n";
  }
  return text;
}

TEST(InlineCalls, LookupsInGeneratedFiles) {
  std::mt19937 random(7);
  for (int round = 0; round < 60; ++round) {
    std::string text = head();
    std::vector<Model> models;
    for (uint64_t begin = 0x1000; models.size() < 20; begin = models.back().end() + random() % 3) {
      models.emplace_back(random, begin);
      text += models.back().text();
    }
    const Forms forms(text);
    for (const Model& model : models) {
      for (uint64_t at = model.begin(); at < model.end(); ++at) {
        ASSERT_EQ(forms.answer(at), model.answer(at)) << std::hex << at << "\n" << model.text();
      }
    }
  }
}

// All forms agree for arbitrary ranges.
TEST(InlineCalls, LookupsInDamagedFiles) {
  std::mt19937 random(8);
  for (int round = 0; round < 300; ++round) {
    std::ostringstream text;
    text << head() << "FUNC 1010 30 0 f\n";
    for (int i = 0; i < 12; ++i) {
      text << "INLINE " << std::dec << random() % 4 << ' ' << random() % 3 << ' ' << random() % 4
           << ' ' << random() % 4 << std::hex;
      for (uint32_t n = 1 + random() % 3; n > 0; --n) {
        text << ' ' << 0x1000 + random() % 0x50 << ' ' << random() % 0x20;
      }
      text << '\n'
           << 0x1000 + random() % 0x50 << ' ' << random() % 9 << std::dec << ' ' << random() % 3
           << ' ' << random() % 4 << '\n';
    }
    const Forms forms(text.str());
    for (uint64_t at = 0x1000; at < 0x1050; ++at) forms.answer(at);
    if (HasFailure()) return;
  }
}

}  // namespace
