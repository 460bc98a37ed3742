// The replay tool's name -> type table of exported variables: complete and
// exact against the data symbols of the built library (name and byte size of
// every one), and the parsing of --set assignments into the right bytes.
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "core/tunables.h"
#include "qvnlib/qvnlib.h"

namespace {

using qvn_tools::Assignment;
using qvn_tools::TunableInfo;

// Name -> size of every defined, exported data object in the library's
// dynamic symbol table.
std::map<std::string, uint64_t> ExportedObjects(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::map<std::string, uint64_t> out;
  if (image.size() < sizeof(Elf64_Ehdr)) return out;
  Elf64_Ehdr eh;
  std::memcpy(&eh, image.data(), sizeof eh);
  for (int i = 0; i < eh.e_shnum; ++i) {
    Elf64_Shdr sh, strtab;
    std::memcpy(&sh, image.data() + eh.e_shoff + i * sizeof sh, sizeof sh);
    if (sh.sh_type != SHT_DYNSYM) continue;
    std::memcpy(&strtab, image.data() + eh.e_shoff + sh.sh_link * sizeof strtab, sizeof strtab);
    for (uint64_t off = 0; off + sizeof(Elf64_Sym) <= sh.sh_size; off += sizeof(Elf64_Sym)) {
      Elf64_Sym sym;
      std::memcpy(&sym, image.data() + sh.sh_offset + off, sizeof sym);
      if (ELF64_ST_TYPE(sym.st_info) != STT_OBJECT || sym.st_shndx == SHN_UNDEF) continue;
      std::string name = image.data() + strtab.sh_offset + sym.st_name;
      // Reserved names belong to the toolchain (sanitizer bookkeeping, for one).
      if (name.rfind("__", 0) == 0) continue;
      out[name] = sym.st_size;
    }
  }
  return out;
}

TEST(TunableTable, MatchesEveryExportedVariableOfTheLibraryBySize) {
  std::map<std::string, uint64_t> objects = ExportedObjects(QVN_LIBRARY_FILE);
  ASSERT_GT(objects.size(), 100u) << QVN_LIBRARY_FILE;
  objects.erase(QVNLIB_TABLE_SYMBOL);  // the entry table is not a tunable
  for (const auto &[name, size] : objects) {
    const TunableInfo *t = qvn_tools::FindTunable(name);
    ASSERT_NE(t, nullptr) << name << " is exported but missing from the table";
    EXPECT_EQ(t->byte_size(), size) << name;
  }
  for (const TunableInfo &t : qvn_tools::AllTunables()) {
    EXPECT_EQ(objects.count(t.name), 1u) << t.name << " is in the table but not exported";
  }
}

struct GoodCase {
  const char *text;
  const char *type;
  size_t index;       // element to check
  const char *value;  // as formatted
  size_t count;       // elements written
};

void PrintTo(const GoodCase &c, std::ostream *os) { *os << c.text; }

class GoodAssignment : public ::testing::TestWithParam<GoodCase> {};

TEST_P(GoodAssignment, WritesOnlyTheNamedElements) {
  const GoodCase &c = GetParam();
  Assignment a;
  std::string error;
  ASSERT_TRUE(qvn_tools::ParseAssignment(c.text, &a, &error)) << error;
  EXPECT_STREQ(qvn_tools::TypeName(a.info->type), c.type);
  EXPECT_EQ(a.count, c.count);
  std::vector<unsigned char> bytes(a.info->byte_size(), 0);
  qvn_tools::Apply(a, bytes.data());
  EXPECT_EQ(qvn_tools::FormatElement(*a.info, bytes.data(), c.index), c.value);
  size_t changed = 0;
  for (size_t i = 0; i < a.info->count(); ++i) {
    changed += qvn_tools::FormatElement(*a.info, bytes.data(), i) != "0";
  }
  EXPECT_EQ(changed, c.count);
}

INSTANTIATE_TEST_SUITE_P(
    Tunables, GoodAssignment,
    ::testing::Values(GoodCase{"hdi_array[1]=2.5", "float32", 1, "2.5", 1},
                      GoodCase{"hdi_array=-1", "float32", 2, "-1", 3},
                      GoodCase{"g_acc_data.z=9.81", "float32", 2, "9.81000042", 1},
                      GoodCase{"dsc_data_mag[2][299]=7", "float32", 899, "7", 1},
                      GoodCase{"dsc_data_mag[899]=7", "float32", 899, "7", 1},
                      GoodCase{"g_mag_id=-32768", "int16", 0, "-32768", 1},
                      GoodCase{"g_slect_swgyro_mode=0x10", "uint8", 0, "16", 1},
                      GoodCase{"timestamp_fuison=18446744073709551615", "uint64", 0,
                               "18446744073709551615", 1},
                      GoodCase{"acc_timestamp=-5", "int64", 0, "-5", 1},
                      GoodCase{"qvn_caliParameter[2]=-2147483648", "int32", 2, "-2147483648", 1}));

struct BadCase {
  const char *text;
  const char *message;
};

void PrintTo(const BadCase &c, std::ostream *os) { *os << c.text; }

class BadAssignment : public ::testing::TestWithParam<BadCase> {};

TEST_P(BadAssignment, IsRefusedNamingTheProblem) {
  Assignment a;
  std::string error;
  EXPECT_FALSE(qvn_tools::ParseAssignment(GetParam().text, &a, &error));
  EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Tunables, BadAssignment,
    ::testing::Values(BadCase{"nope=1", "unknown tunable 'nope'"},
                      BadCase{"g_mag_id=32768", "out of range [-32768, 32767]"},
                      BadCase{"g_enable_mag_sfi_array=-1", "out of range [0, 65535]"},
                      BadCase{"qvn_accuracy=1.5", "not an integer"},
                      BadCase{"hdi_array=1x", "'1x' is not a number"},
                      BadCase{"hdi_array=", "empty"}, BadCase{"hdi_array[3]=0", "bad index"},
                      BadCase{"g_mag_id[0]=1", "bad index"},
                      BadCase{"dsc_data_mag[0][300]=1", "bad index"},
                      BadCase{"hdi_array.x=1", "bad index"}, BadCase{"hdi_array", "NAME=VALUE"},
                      BadCase{"=5", "NAME=VALUE"}));

}  // namespace
