// Prints the unwind entries of an ARM64 image as the converter decodes them, one line each:
//
//   dump_arm64_unwind IMAGE
//
//   BEGIN LENGTH PROLOG [at START CODES]...     begin and lengths in bytes, hexadecimal
//   BEGIN LENGTH malformed | unsupported
//
// Codes are in the order of the record. scripts/lib/check_arm64_codes.py compares this with the
// output of llvm-readobj.

#include <cstdio>

#include "symforge/src/WinStructs.h"
#include "symforge/src/pe/arm64_unwind_entry.h"
#include "symforge/src/pe/pe_image.h"

namespace symforge_internal {
namespace {

using Kind = Arm64Effect::Kind;

void printSave(const Arm64Effect& effect) {
  const char file = "xdq"[static_cast<int>(effect.file)];
  std::printf(" save_%c%d", file, effect.first);
  if (effect.second != Arm64Effect::kNoRegister) std::printf("_%c%d", file, effect.second);
  std::printf("@%u", unsigned{effect.offset});
  if (effect.allocated != 0) std::printf("!%u", unsigned{effect.allocated});
}

void printEffect(const Arm64Effect& effect) {
  if (effect.kind == Kind::kSave) return printSave(effect);
  if (effect.kind == Kind::kSign) {
    std::printf(" sign");
  } else if (effect.kind == Kind::kAllocate) {
    std::printf(" alloc!%u", unsigned{effect.allocated});
  } else if (effect.kind == Kind::kSetFrame) {
    std::printf(" fp@%u", unsigned{effect.offset});
  } else {
    std::printf(" nop");
  }
}

void printSequence(const Arm64Sequence& sequence) {
  for (size_t i = 0; i < sequence.effects.size(); ++i) {
    if (i == sequence.instructions && sequence.has_end_c) std::printf(" |");
    printEffect(sequence.effects[i]);
  }
}

void printEntry(Arm64UnwindEntry& reader, const Arm64RuntimeFunction& entry) {
  Arm64Status status = reader.read(entry);
  std::printf("%x %x", unsigned{entry.BeginAddress}, reader.length() * kArm64InstructionBytes);
  if (status == Arm64Status::kOk) printSequence(reader.prolog());
  for (size_t i = 0; status == Arm64Status::kOk && i < reader.epilogCount(); ++i) {
    status = reader.selectEpilog(i);
    if (status != Arm64Status::kOk) break;
    std::printf(" at %x", reader.epilogStart() * kArm64InstructionBytes);
    printSequence(reader.epilog());
  }
  if (status == Arm64Status::kMalformed) std::printf(" malformed");
  if (status == Arm64Status::kUnsupported) std::printf(" unsupported");
  std::printf("\n");
}

int dump(const char* path) {
  symforge_internal::MMapWrapper mapping;
  if (!mapping.Map(path)) return 1;
  const symforge_internal::PeImage image(mapping);
  if (image.ntHeaders() == nullptr || !image.isPe32Plus()) return 1;
  const auto& directory =
      image.ntHeaders()
          ->OptionalHeader.DataDirectory[symforge_internal::IMAGE_DIRECTORY_ENTRY_EXCEPTION];
  const uint8_t* table = image.bytesAt(directory.VirtualAddress, directory.Size);
  if (table == nullptr) return 1;
  Arm64UnwindEntry reader(image);
  for (size_t i = 0; i < directory.Size / sizeof(Arm64RuntimeFunction); ++i)
    printEntry(reader, reinterpret_cast<const Arm64RuntimeFunction*>(table)[i]);
  return 0;
}

}  // namespace
}  // namespace symforge_internal

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: dump_arm64_unwind IMAGE\n");
    return 1;
  }
  return symforge_internal::dump(argv[1]);
}
