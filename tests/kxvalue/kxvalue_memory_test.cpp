// What the process holds of the system's memory after large values are gone. Not built with
// sanitizers, whose allocators keep what is freed.
#include <cstddef>
#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

#include <gtest/gtest.h>

#include <ka/os.hpp>
#include <kxvalue/kxrows.hpp>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

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
  struct {
    char const* name;
    KXValue (*make)(int keys, int samples);
    int keys;
    int samples;
    std::size_t leastBytes;
  } const cases[] = {
      {"rows of many keys", fetched, 100'000, 10, 50'000'000},
      {"ten million samples", fetched, 10'000, 1000, 500'000'000},
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

// A client that fetches as much each time wants the same memory again.
TEST(ValueMemory, OfPeaksInARowIsKept) {
  ka::os::keepFreedMemory();
  std::size_t const before = residentBytes();
  for (int i = 0; i < 3; ++i) fetched(10'000, 100);

  EXPECT_GE(residentBytes(), before + 40'000'000);
}

}  // namespace
}  // namespace KX
