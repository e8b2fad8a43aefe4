// SPDX-License-Identifier: Apache-2.0
#include "SharedObject.h"

#include <cxxabi.h>
#include <elf.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>

#include "World.h"

namespace test {
namespace {

// The file's content, and typed views of it.
class Image {
 public:
  explicit Image(const std::string& path) : mBytes(readFile(path)) {
    if (mBytes.size() < sizeof(Elf64_Ehdr) || std::memcmp(mBytes.data(), ELFMAG, SELFMAG) != 0 ||
        mBytes[EI_CLASS] != ELFCLASS64 || header().e_type != ET_DYN || header().e_machine != EM_X86_64) {
      throw std::runtime_error("no shared library: " + path);
    }
  }

  const Elf64_Shdr& section(std::uint32_t type) const {
    for (const Elf64_Shdr& each : sections()) {
      if (each.sh_type == type) return each;
    }
    throw std::runtime_error("a section is missing");
  }
  template <class T>
  std::span<const T> entries(const Elf64_Shdr& section) const {
    return view<T>(section.sh_offset, section.sh_size / sizeof(T));
  }
  // The text at `offset` of the strings that belong to `section`.
  std::string text(const Elf64_Shdr& section, std::uint64_t offset) const {
    const Elf64_Shdr& strings = sections()[section.sh_link];
    return view<char>(strings.sh_offset, strings.sh_size).subspan(offset).data();
  }

 private:
  template <class T>
  std::span<const T> view(std::uint64_t offset, std::uint64_t count) const {
    if (offset + count * sizeof(T) > mBytes.size()) throw std::runtime_error("the file is cut off");
    return {reinterpret_cast<const T*>(mBytes.data() + offset), count};
  }
  const Elf64_Ehdr& header() const { return view<Elf64_Ehdr>(0, 1)[0]; }
  std::span<const Elf64_Shdr> sections() const { return view<Elf64_Shdr>(header().e_shoff, header().e_shnum); }

  std::string mBytes;
};

bool isOffered(const Elf64_Sym& symbol) {
  const unsigned char binding = ELF64_ST_BIND(symbol.st_info);
  const unsigned char visibility = ELF64_ST_VISIBILITY(symbol.st_other);
  return symbol.st_shndx != SHN_UNDEF && binding != STB_LOCAL &&
         (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

// The symbol that stands for a version of the interface: absolute, and an object without a size.
bool isVersion(const Elf64_Sym& symbol) { return symbol.st_shndx == SHN_ABS; }

}  // namespace

SharedObject::SharedObject(const std::string& path) {
  const Image image(path);
  const Elf64_Shdr& dynamic = image.section(SHT_DYNAMIC);
  for (const Elf64_Dyn& entry : image.entries<Elf64_Dyn>(dynamic)) {
    if (entry.d_tag == DT_SONAME) mSoname = image.text(dynamic, entry.d_un.d_val);
  }
  const Elf64_Shdr& symbols = image.section(SHT_DYNSYM);
  for (const Elf64_Sym& symbol : image.entries<Elf64_Sym>(symbols)) {
    if (isOffered(symbol) && !isVersion(symbol)) mExported.push_back(image.text(symbols, symbol.st_name));
  }
}

std::string sourceName(const std::string& symbol) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
  const std::string name = status == 0 ? demangled.get() : symbol;
  return name.substr(0, name.find('('));
}

}  // namespace test
