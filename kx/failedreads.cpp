#include "kx/failedreads.hpp"

#include <string_view>

#include <ka/log.hpp>

namespace KX::tool {
namespace {

constexpr char const* kHandler = "kx watch";

bool isFailedRead(ka::log::Record const& record) {
  constexpr std::string_view kText = "Error caught getting data: ";
  return record.category == "memoryWatcher" && record.function == "xUpdateValues" &&
         record.text.starts_with(kText);
}

}  // namespace

KXFailedReads::KXFailedReads() {
  ka::log::addHandler(kHandler, [this](ka::log::Record const& record) {
    if (isFailedRead(record)) mCount.fetch_add(1, std::memory_order_relaxed);
  });
}

KXFailedReads::~KXFailedReads() {
  ka::log::removeHandler(kHandler);
}

}  // namespace KX::tool
