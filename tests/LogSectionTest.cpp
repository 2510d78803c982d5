// Reads the log message's descriptor from library files, the way a tool does: without running them.
// The library is read as it was built, and once more as a linker leaves it that drops what nothing
// refers to and then strips the rest. VORN_LIBRARY in the environment names one more, an installed
// one.
#include <elf.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

// A library file: its sections, and the addresses that the loader would write.
class Library {
 public:
  explicit Library(const char* path) {
    std::ifstream file(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(file), {});
    const auto header = at<Elf64_Ehdr>(0);
    for (unsigned i = 0; i < header.e_shnum; ++i)
      sections_.push_back(at<Elf64_Shdr>(header.e_shoff + i * sizeof(Elf64_Shdr)));
    namesAt_ = sections_.at(header.e_shstrndx).sh_offset;
    for (const auto& section : sections_) {
      for (std::uint64_t i = 0; section.sh_type == SHT_RELA && i < section.sh_size / 24; ++i) {
        const auto entry = at<Elf64_Rela>(section.sh_offset + i * 24);
        if (ELF64_R_TYPE(entry.r_info) == R_X86_64_RELATIVE)
          relocations_[entry.r_offset] = static_cast<std::uint64_t>(entry.r_addend);
      }
    }
  }

  std::optional<Elf64_Shdr> section(const std::string& name) const {
    for (const auto& section : sections_) {
      if (bytes_.data() + namesAt_ + section.sh_name == name) return section;
    }
    return {};
  }

  // The text whose address the loader writes at `address`; nothing when it writes none there.
  std::optional<std::string> textAt(std::uint64_t address) const {
    const auto relocation = relocations_.find(address);
    if (relocation == relocations_.end()) return {};
    const auto target = relocation->second;
    for (const auto& section : sections_) {
      if (section.sh_type == SHT_PROGBITS && (section.sh_flags & SHF_WRITE) == 0 &&
          target - section.sh_addr < section.sh_size)
        return bytes_.data() + section.sh_offset + (target - section.sh_addr);
    }
    return {};
  }

  template <typename T>
  T at(std::uint64_t offset) const {
    T value;
    std::memcpy(&value, bytes_.substr(offset, sizeof value).data(), sizeof value);
    return value;
  }

 private:
  std::string bytes_;
  std::vector<Elf64_Shdr> sections_;
  std::uint64_t namesAt_ = 0;
  std::map<std::uint64_t, std::uint64_t> relocations_;
};

class LogSection : public testing::TestWithParam<const char*> {};

TEST_P(LogSection, HoldsTheDescriptorAndNothingElse) {
  const Library library(GetParam());
  const auto section = library.section(".tolmar_logmsg");
  ASSERT_TRUE(section);
  EXPECT_EQ(section->sh_type, static_cast<unsigned>(SHT_PROGBITS));
  EXPECT_EQ(section->sh_flags & (SHF_ALLOC | SHF_WRITE | SHF_EXECINSTR),
            static_cast<unsigned>(SHF_ALLOC | SHF_WRITE));
  ASSERT_EQ(section->sh_size, 40U);
  EXPECT_EQ(library.textAt(section->sh_addr), "VORNSDKRPC_ACCOUNTING_RPC");
  EXPECT_EQ(library.textAt(section->sh_addr + 8),
            "user: %s, session: %s, peer: %s, rpc: %s, status: %s");
  EXPECT_EQ(library.textAt(section->sh_addr + 16),
            "RPC request received by the VornSdkRpc server from a client");
  EXPECT_EQ(library.textAt(section->sh_addr + 24), "\x01");
  EXPECT_FALSE(library.textAt(section->sh_addr + 32));
  EXPECT_EQ(library.at<std::uint64_t>(section->sh_offset + 32), 6U);
}

std::vector<const char*> libraries() {
  std::vector<const char*> result{LIBRARY, STRIPPED_LIBRARY};
  if (auto* const installed = std::getenv("VORN_LIBRARY")) result.push_back(installed);
  return result;
}

INSTANTIATE_TEST_SUITE_P(Libraries, LogSection, testing::ValuesIn(libraries()));

TEST(LogSection, TheStrippedLibraryIsStripped) {
  EXPECT_FALSE(Library(STRIPPED_LIBRARY).section(".symtab"));
}

}  // namespace
