// PDBs of more than 4 GiB, as sparse files: the text is that of the same PDB in one piece.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "builders/far_msf.h"
#include "tests/pdb_text.h"
#include "tests/support/process.h"

namespace test_support {
namespace {

constexpr uint64_t kGiB = 1ull << 30;
const std::string kData = SYMFORGE_FIXTURES "/";

// The text after its first line, which names the file.
std::string text_of(const MemoryFile& file, Format format) {
  const Conversion result = convertAlone(file, format);
  EXPECT_EQ(result.failure, "");
  return result.text.substr(result.text.find('\n') + 1);
}

std::string text_of(FarMsf& far, Format format) {
  const MemoryFile file;
  far.write(file.fd());
  return text_of(file, format);
}

// Each stream alone, and the directory alone: all others remain below 4 GiB.
TEST(FarPagesTest, AreReadFromTheirPlace) {
  const std::string bytes = read_file(kData + "engine64.pdb");
  for (const Format format : {Format::kDefault, Format::kStandard}) {
    const std::string expected = text_of(MemoryFile(bytes), format);
    FarMsf directory(bytes);
    EXPECT_EQ(text_of(directory.move_directory(4 * kGiB), format), expected);
    for (uint32_t stream = 0; stream < directory.stream_count(); ++stream) {
      if (directory.is_empty(stream)) continue;
      FarMsf far(bytes);
      EXPECT_EQ(text_of(far.move_stream(stream, 4 * kGiB), format), expected) << stream;
    }
  }
}

// Everything but the header, above 8 GiB; the directory has more than one page with small ones.
TEST(FarPagesTest, HaveAnySize) {
  for (uint32_t page = 512; page <= 65536; page *= 2) {
    SmallPdb pdb(page);
    for (uint32_t i = 0; i < 100; ++i) {
      const std::string name = "function" + std::to_string(i);
      ModuleBuilder& module = pdb.add_module(name + ".obj");
      const uint32_t file = module.file(pdb.names.add("C:\\" + name + ".cc"));
      module.proc({.name = name, .offset = 16 * i, .length = 9, .type = pdb.type}).end();
      module.lines(1, 16 * i, 9, file, {{0, 1}, {4, 2}});
    }
    const std::string bytes = pdb.build().bytes;
    for (const Format format : {Format::kDefault, Format::kStandard}) {
      FarMsf far(bytes);
      far.move_directory(12 * kGiB);
      for (uint32_t i = 0; i < far.stream_count(); ++i)
        far.move_stream(i, (8 + 4 * (i % 2)) * kGiB);
      const std::string text = text_of(far, format);
      EXPECT_EQ(text, text_of(MemoryFile(bytes), format)) << page;
      EXPECT_NE(text.find(" 9 0 function99()\n"), std::string::npos) << text;
    }
  }
}

// The program itself, with its sandbox, and images found beside the PDB.
TEST(FarPagesTest, AreConvertedByTheProgram) {
  const TemporaryDirectory temp;
  FarMsf far(read_file(kData + "calls64.pdb"));
  for (uint32_t i = 0; i < far.stream_count(); ++i) far.move_stream(i, 8 * kGiB);
  const std::string path = temp / "calls64.pdb";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  far.move_directory(4 * kGiB).write(fd);
  close(fd);
  temp.file("calls64.dll", read_file(kData + "calls64.dll"));
  EXPECT_EQ(run({path}).out, read_file(kData + "calls64.sym"));
  EXPECT_EQ(run({"--standard", path}).out, read_file(kData + "calls64.std.sym"));
}

}  // namespace
}  // namespace test_support
