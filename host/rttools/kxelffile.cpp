#include <host/rttools/kxelffile.hpp>

#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace KX {
namespace {

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);
using Section = ElfW(Shdr);

constexpr unsigned char kNativeClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;

/// The end of a part of the file; the greatest number if there is no such end.
std::uint64_t endOf(std::uint64_t offset, std::uint64_t size) {
  std::uint64_t end = 0;
  return __builtin_add_overflow(offset, size, &end) ? UINT64_MAX : end;
}

template <class T>
bool readAt(std::ifstream& file, std::uint64_t offset, T& what) {
  file.seekg(static_cast<std::streamoff>(offset));
  return static_cast<bool>(file.read(reinterpret_cast<char*>(&what), sizeof(T)));
}

bool isNative(Header const& header) {
  return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
         header.e_ident[EI_CLASS] == kNativeClass;
}

/// The size that a table of headers and what they point to ask of the file; the headers that lie
/// beyond its end are not followed.
template <class T, class EndOfPart>
std::uint64_t neededSize(std::ifstream& file, std::uint64_t offset, std::uint64_t count,
                         EndOfPart const& endOfPart) {
  if (offset == 0) return 0;
  std::uint64_t needed = endOf(offset, count * sizeof(T));
  T entry;
  for (std::uint64_t i = 0; i < count && readAt(file, offset + i * sizeof(T), entry); ++i) {
    needed = std::max(needed, endOfPart(entry));
  }
  file.clear();
  return needed;
}

}  // namespace

std::string missingPartOf(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  std::error_code error;
  std::uint64_t const size = std::filesystem::file_size(path, error);
  Header header;
  if (error || !readAt(file, 0, header) || !isNative(header)) return {};
  std::uint64_t const needed = std::max(
      neededSize<Segment>(
          file, header.e_phoff, header.e_phnum,
          [](Segment const& segment) { return endOf(segment.p_offset, segment.p_filesz); }),
      neededSize<Section>(file, header.e_shoff, header.e_shnum, [](Section const& section) {
        bool const isInFile = section.sh_type != SHT_NOBITS;
        return isInFile ? endOf(section.sh_offset, section.sh_size) : 0;
      }));
  if (needed <= size) return {};
  return "it is cut off: by its headers it has " + std::to_string(needed) +
         " bytes, the file has " + std::to_string(size);
}

}  // namespace KX
