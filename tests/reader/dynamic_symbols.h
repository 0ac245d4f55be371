#ifndef MORVOCAT_TESTS_READER_DYNAMIC_SYMBOLS_H_
#define MORVOCAT_TESTS_READER_DYNAMIC_SYMBOLS_H_

// What a shared object offers other objects: the defined global and weak
// symbols of its dynamic symbol table, read from the file itself (what
// `nm -D --defined-only` prints, without needing binutils).

#include <elf.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include "support/temp_root.h"

namespace morvotest {

namespace internal {

template <typename T>
bool ReadAt(const std::string& image, uint64_t offset, T* out) {
  if (offset > image.size() || image.size() - offset < sizeof(T)) return false;
  memcpy(out, image.data() + offset, sizeof(T));
  return true;
}

inline std::string NameAt(const std::string& image, const Elf64_Shdr& strtab, uint32_t offset) {
  if (offset >= strtab.sh_size || strtab.sh_offset + offset >= image.size()) return "";
  return std::string(image.c_str() + strtab.sh_offset + offset);
}

// The names of the version definitions: each has an absolute symbol of its
// own name in the table, which is not a function or object of the library.
inline std::set<std::string> VersionNames(const std::string& image, const Elf64_Shdr& verdef,
                                          const Elf64_Shdr& strtab) {
  std::set<std::string> names;
  uint64_t at = verdef.sh_offset;
  Elf64_Verdef def;
  while (ReadAt(image, at, &def)) {
    Elf64_Verdaux aux;
    if (ReadAt(image, at + def.vd_aux, &aux)) names.insert(NameAt(image, strtab, aux.vda_name));
    if (def.vd_next == 0) break;
    at += def.vd_next;
  }
  return names;
}

}  // namespace internal

// Empty when the file is not a 64-bit ELF object with a dynamic symbol table.
inline std::set<std::string> ExportedSymbols(const std::string& path) {
  std::string image = ReadFile(path);
  std::set<std::string> names;
  Elf64_Ehdr header;
  if (!internal::ReadAt(image, 0, &header) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64) {
    return names;
  }
  std::vector<Elf64_Shdr> sections(header.e_shnum);
  for (size_t i = 0; i < sections.size(); ++i) {
    if (!internal::ReadAt(image, header.e_shoff + i * sizeof(Elf64_Shdr), &sections[i])) return {};
  }
  std::set<std::string> versions;
  for (const Elf64_Shdr& s : sections) {
    if (s.sh_type == SHT_GNU_verdef && s.sh_link < sections.size()) {
      versions = internal::VersionNames(image, s, sections[s.sh_link]);
    }
  }
  for (const Elf64_Shdr& s : sections) {
    if (s.sh_type != SHT_DYNSYM || s.sh_link >= sections.size()) continue;
    for (uint64_t at = sizeof(Elf64_Sym); at + sizeof(Elf64_Sym) <= s.sh_size;
         at += sizeof(Elf64_Sym)) {
      Elf64_Sym sym;
      if (!internal::ReadAt(image, s.sh_offset + at, &sym)) break;
      if (sym.st_shndx == SHN_UNDEF || ELF64_ST_BIND(sym.st_info) == STB_LOCAL) continue;
      std::string name = internal::NameAt(image, sections[s.sh_link], sym.st_name);
      if (sym.st_shndx == SHN_ABS && versions.count(name) != 0) continue;
      names.insert(name);
    }
  }
  return names;
}

}  // namespace morvotest

#endif  // MORVOCAT_TESTS_READER_DYNAMIC_SYMBOLS_H_
