// What the process holds of the system's memory after large values are gone.
#include <cstddef>
#include <fstream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include <kxvalue/kxrows.hpp>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#elif defined(__has_feature)
constexpr bool kIsSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kIsSanitized = false;
#endif

std::size_t residentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

/// [[[time, value], ...], ...]: `keys` arrays of `samples` rows.
KXValue fetched(int keys, int samples) {
  auto const count = static_cast<std::size_t>(samples);
  KXRows times(count);
  for (int i = 0; i < samples; ++i) times.push(i, 0);
  KXValue const shared = times.take();
  return KXValue::arrayFrom(static_cast<std::size_t>(keys), [&](std::size_t key) {
    KXRows rows(count, shared);
    for (std::size_t i = 0; i < count; ++i) rows.pushShared(i, static_cast<double>(key));
    return rows.take();
  });
}

/// The same without pieces, and with texts.
KXValue arrays(int keys, int samples) {
  return KXValue::arrayFrom(static_cast<std::size_t>(keys), [&](std::size_t key) {
    return KXValue::arrayFrom(static_cast<std::size_t>(samples), [&](std::size_t i) {
      return KXValue::arrayOf(static_cast<int>(i), std::to_string(key));
    });
  });
}

TEST(ValueMemory, OfAPeakGoesBackToTheSystem) {
  if (kIsSanitized) GTEST_SKIP() << "a sanitizer's allocator keeps what is freed";
  struct {
    char const* name;
    KXValue (*make)(int keys, int samples);
    int keys;
    int samples;
    std::size_t leastBytes;
  } const cases[] = {
      {"ten million samples", fetched, 10'000, 1000, 500'000'000},
      {"rows of many keys", fetched, 100'000, 10, 50'000'000},
      {"arrays", arrays, 1000, 500, 50'000'000},
  };

  for (auto const& each : cases) {
    SCOPED_TRACE(each.name);
    std::size_t const before = residentBytes();
    // Of each size of block, something that lives on, so that the end of the heap is not free.
    KXValue kept;
    std::size_t peak = 0;
    {
      KXValue const value = each.make(each.keys, each.samples);
      kept = KXValue::arrayOf("kept", each.make(1, 1));
      peak = residentBytes();
    }
    std::size_t const after = residentBytes();

    EXPECT_GE(peak, before + each.leastBytes);
    EXPECT_LE(static_cast<double>(after), 1.05 * static_cast<double>(before));
    EXPECT_EQ(kept.getSize(), 2);
  }
}

// Pieces of every size, freed in every order, beside each other in large memory.
TEST(RowsMemory, HoldsWhatWasBuiltWhateverElseIsFreed) {
  std::mt19937 random(1);
  auto const pick = [&](std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
  };
  std::size_t const sizes[] = {0, 1, 17, 30, 1000, 1000, 40'000, 1'500'000};
  std::vector<KXValue> arrays(60);
  for (int step = 0; step < 400; ++step) {
    SCOPED_TRACE(step);
    KXValue& array = arrays[pick(arrays.size())];
    array = KXValue();
    std::size_t const size = sizes[pick(step % 100 == 0 ? 8 : 7)];
    KXRows rows(size);
    for (std::size_t i = 0; i < size; ++i) rows.push(static_cast<int>(i), step);
    array = rows.take();

    KXValue const& any = arrays[pick(arrays.size())];
    if (any.getSize() == 0) continue;
    int const last = any.getSize() - 1;
    ASSERT_EQ(any[0][0], KXValue(0));
    ASSERT_EQ(any[last][0], KXValue(last));
    ASSERT_EQ(any[last][1], any[0][1]);
  }
}

TEST(RowsMemory, OfWhatIsFreedGoesBackWhileTheRestStays) {
  if (kIsSanitized) GTEST_SKIP() << "a sanitizer's allocator keeps what is freed";
  constexpr std::size_t kKeyBytes = 1000 * 56;
  constexpr std::size_t kSlack = 12'000'000;
  std::size_t const before = residentBytes();
  KXValue value = fetched(2000, 1000);
  KXValue const row = std::as_const(value)[1500][7];
  EXPECT_GE(residentBytes(), before + 2000 * kKeyBytes);

  value.arraySetSize(1000);

  EXPECT_LE(residentBytes(), before + 1000 * kKeyBytes + kSlack);
  EXPECT_EQ(std::as_const(value)[999][999].toString(1), "[[999,0],999.0]");
  value = KXValue();
  EXPECT_LE(residentBytes(), before + kSlack);
  EXPECT_EQ(row.toString(1), "[[7,0],1500.0]");
}

}  // namespace
}  // namespace KX
