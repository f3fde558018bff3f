// What the process holds of the system's memory after large values are gone.
#include <cstddef>
#include <fstream>
#include <string>
#include <utility>

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

}  // namespace
}  // namespace KX
