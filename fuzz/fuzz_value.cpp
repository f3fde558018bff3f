#include <cstddef>
#include <cstdint>

#include "fuzz/targets.hpp"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  KX::fuzz::value({reinterpret_cast<char const*>(data), size});
  return 0;
}
