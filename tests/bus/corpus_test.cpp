// What the fuzzers run, with the stored corpus and mutations of it: the same on each run.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "fuzz/targets.hpp"
#include "tests/bus/hex.hpp"

namespace KX {
namespace {

struct Target {
  char const* name;
  void (*run)(std::string_view bytes);
};
constexpr Target kTargets[] = {
    {"value", fuzz::value}, {"frames", fuzz::frames}, {"subject", fuzz::subject}};

struct Input {
  std::string name;
  std::string bytes;
};

// In the order of their names.
std::vector<Input> corpusOf(char const* target) {
  std::vector<Input> inputs;
  auto const folder = std::filesystem::path(KX_SOURCE_DIR) / "fuzz/corpus" / target;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    inputs.push_back({entry.path().filename(), std::string(std::istreambuf_iterator<char>(file),
                                                           std::istreambuf_iterator<char>())});
  }
  std::ranges::sort(inputs, {}, &Input::name);
  return inputs;
}

class Mutator {
 public:
  explicit Mutator(std::vector<Input> const& inputs) : mInputs(inputs) {}

  std::string next() {
    std::string bytes = xAny();
    for (std::size_t i = xBelow(4) + 1; i > 0; --i) xChange(bytes);
    return bytes;
  }

 private:
  std::size_t xBelow(std::size_t size) { return size == 0 ? 0 : mRandom() % size; }
  std::string const& xAny() { return mInputs[xBelow(mInputs.size())].bytes; }
  void xChange(std::string& bytes) {
    constexpr std::string_view kHeads = "\xc0\xc4\xd9\xdb\xdc\xdd\xce\xcf\xd3\xcb\x91\x9f\xa1.@%";
    std::size_t const place = xBelow(bytes.size() + 1);
    switch (xBelow(6)) {
      case 0:
        bytes.erase(place, xBelow(4) + 1);
        break;
      case 1:
        bytes.insert(place, 1, static_cast<char>(xBelow(256)));
        break;
      case 2:
        bytes.insert(place, 1, kHeads[xBelow(kHeads.size())]);
        break;
      case 3:
        if (place < bytes.size()) bytes[place] = static_cast<char>(bytes[place] ^ 1 << xBelow(8));
        break;
      case 4:
        bytes.insert(place, xAny());
        break;
      default:
        bytes.resize(place);
    }
  }

  std::vector<Input> const& mInputs;
  std::mt19937 mRandom{1};
};

TEST(Corpus, HoldsWhatIsPromised) {
  for (auto const& [target, run] : kTargets) {
    std::vector<Input> const inputs = corpusOf(target);
    EXPECT_GT(inputs.size(), 20U);
    for (Input const& input : inputs) {
      SCOPED_TRACE(std::string(target) + "/" + input.name);
      EXPECT_NO_THROW(run(input.bytes));
    }
  }
}

TEST(Corpus, HoldsWhatIsPromisedWhenMutated) {
  constexpr int kMutations = 20000;
  for (auto const& [target, run] : kTargets) {
    std::vector<Input> const inputs = corpusOf(target);
    ASSERT_FALSE(inputs.empty());
    Mutator mutator(inputs);
    for (int i = 0; i < kMutations; ++i) {
      std::string const bytes = mutator.next();
      ASSERT_NO_THROW(run(bytes)) << target << ": " << toHex(bytes);
    }
  }
}

}  // namespace
}  // namespace KX
