// A fetch of a million samples as bytes and back, against the same by hand.

#include <bit>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <msgpack.hpp>

#include <host/bus/kxwire.hpp>

#include "bench/bus/busbench.hpp"

namespace KX::bench {
namespace {

KXValue const& fetched() {
  static KXValue const value = [] {
    std::vector<KXValue> keys;
    for (std::string const& name : keyNames(100)) {
      std::vector<KXValue> samples;
      for (int i = 0; i < 10'000; ++i) {
        samples.push_back(
            KXValue::arrayOf(KXValue::arrayOf(1'700'000'000 + i / 100, i % 100 * 10'000), 0.5 * i));
      }
      keys.push_back(KXValue::arrayOf(name, KXValue(std::move(samples))));
    }
    return KXValue(std::move(keys));
  }();
  return value;
}

void encode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(encodeResult(fetched()));
}

void packByHand(msgpack::packer<msgpack::sbuffer>& packer, KXValue const& value) {
  switch (value.getType()) {
    case KXValue::TypeArray:
      packer.pack_array(static_cast<std::uint32_t>(value.getSize()));
      for (int i = 0; i < value.getSize(); ++i) packByHand(packer, value[i]);
      break;
    case KXValue::TypeInt:
      packer.pack(static_cast<int>(value));
      break;
    case KXValue::TypeFloat:
      packer.pack(static_cast<double>(value));
      break;
    case KXValue::TypeString:
      packer.pack(static_cast<std::string const&>(value));
      break;
    default:
      packer.pack_nil();
  }
}

void encodeByHand(benchmark::State& state) {
  for (auto _ : state) {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_array(2);
    packer.pack(0);
    packByHand(packer, fetched());
    benchmark::DoNotOptimize(buffer.data());
  }
}

void decode(benchmark::State& state) {
  std::string const bytes = encodeResult(fetched());
  for (auto _ : state) benchmark::DoNotOptimize(decodeReply(bytes, ""));
}

// Knows what comes: arrays, doubles, ints and short texts, all well-formed.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : mBytes(bytes) {}
  KXValue read() {
    auto const tag = static_cast<unsigned char>(mBytes[mAt++]);
    if (tag < 0x80) return static_cast<int>(tag);
    if ((tag & 0xf0U) == 0x90) return xArray(tag & 0x0fU);
    if ((tag & 0xe0U) == 0xa0) return xText(tag & 0x1fU);
    switch (tag) {
      case 0xcb:
        return std::bit_cast<double>(xNumber(8));
      case 0xcd:
        return static_cast<int>(xNumber(2));
      case 0xce:
      case 0xd2:
        return static_cast<int>(xNumber(4));
      case 0xd9:
        return xText(xNumber(1));
      case 0xdc:
        return xArray(xNumber(2));
      case 0xdd:
        return xArray(xNumber(4));
      default:
        return {};
    }
  }

 private:
  std::uint64_t xNumber(int size) {
    std::uint64_t number = 0;
    for (int i = 0; i < size; ++i) {
      number = number << 8U | static_cast<unsigned char>(mBytes[mAt++]);
    }
    return number;
  }
  KXValue xText(std::uint64_t size) {
    mAt += size;
    return std::string(mBytes.substr(mAt - size, size));
  }
  KXValue xArray(std::uint64_t size) {
    KXValue array;
    array.arraySetSize(static_cast<int>(size));
    KXValue* const elements = array.arrayData();
    for (std::uint64_t i = 0; i < size; ++i) elements[i] = read();
    return array;
  }

  std::string_view const mBytes;
  std::size_t mAt = 0;
};

void decodeByHand(benchmark::State& state) {
  std::string const bytes = encodeResult(fetched());
  for (auto _ : state) benchmark::DoNotOptimize(Reader(bytes).read());
}

BENCHMARK(encode)->Name("wire/encode/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(encodeByHand)->Name("wire/encode/hand")->Unit(benchmark::kMillisecond);
BENCHMARK(decode)->Name("wire/decode/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(decodeByHand)->Name("wire/decode/hand")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KX::bench
