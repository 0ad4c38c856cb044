#include "tests/support/small_files.h"

#include "builders/bytes.h"
#include "builders/pe_builder.h"

namespace test_support {

using namespace builders;

Guid guid_of(uint32_t number) { return {.data1 = number}; }
std::string id_of(uint32_t number) { return debug_id(guid_of(number), 10); }

PdbBuilder pdb_with_code() {
  PdbBuilder pdb(512);
  pdb.section({.name = ".text", .address = 0x1000, .virtual_size = 0x10000, .raw_size = 0x10000});
  return pdb;
}

std::string make_pdb(uint32_t number, uint32_t functions) {
  PdbBuilder pdb = pdb_with_code();
  pdb.info.guid = guid_of(number);
  pdb.dbi.age = 10;
  ModuleBuilder& module = pdb.add_module("m.obj");
  for (uint32_t i = 0; i < functions; ++i) {
    module.proc({.name = "f" + std::to_string(i), .offset = 16 * i, .length = 16}).end();
  }
  return pdb.build().bytes;
}

std::string make_pe(uint32_t number, const std::string& pdb_name, bool pe32_plus) {
  PeBuilder pe(pe32_plus);
  pe.codeview(guid_of(number), 10, "C:\\out\\" + pdb_name).time_stamp(0x5F000000 + number);
  return pe.build();
}

std::string make_text(uint32_t number, const std::string& pdb_name, size_t functions) {
  std::string text = "MODULE windows x86_64 " + id_of(number) + " " + pdb_name + "\n";
  for (size_t i = 0; i < functions; ++i) text += "PUBLIC " + std::to_string(i) + " 0 name\n";
  return text;
}

std::string managed_pdb() {
  PdbBuilder pdb(512);
  pdb.dbi.debug.token_rid_map = 1;
  return pdb.build().bytes;
}

std::string type_server_pdb() {
  PdbBuilder pdb(512);
  pdb.types.add(0x1515, Bytes().fill(20).zstr("C:\\obj\\vc140.pdb").str());
  return pdb.build().bytes;
}

// Half of the mark is on another page, which is not the next one of the file.
std::string fastlink_pdb() {
  constexpr uint32_t kPage = 512;
  PdbBuilder pdb(kPage);
  const auto bytes = [&pdb](size_t more) {
    const std::string link_info = "/LinkInfo" + std::string(more, 'x');
    pdb.info.named_streams = {{"/names", 5}, {link_info, 6}};
    return pdb.info.bytes() + Bytes().u32(0).u32(20140508).str();
  };
  const std::string info = bytes(kPage - 2 - bytes(0).size());
  pdb.lay_out();
  pdb.msf.set_stream(1, info + "MINI").order(PageOrder::kReversed);
  return pdb.build().bytes;
}

std::string aborting_pdb() {
  std::string bytes = make_pdb(1);
  put_u32(bytes, 44, 0);
  return bytes;
}

}  // namespace test_support
