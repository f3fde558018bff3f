#include <kx/watch/watchlog.hpp>

#include <unistd.h>

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

KXWatchLog::KXWatchLog() {
  ka::log::addHandler(kHandler, [this](ka::log::Record const& record) {
    if (isFailedRead(record)) mFailedReads.fetch_add(1, std::memory_order_relaxed);
    if (record.level <= ka::log::Warning) mHasWarned.store(true, std::memory_order_relaxed);
  });
}

KXWatchLog::~KXWatchLog() {
  ka::log::removeHandler(kHandler);
}

KXTerminal terminalOf(KXOutput const& output, KXWatchLog& log) {
  KXTerminal terminal = output.terminal();
  terminal.isDisturbed = log.takeHasWarned() && isatty(STDERR_FILENO) == 1;
  return terminal;
}

}  // namespace KX::tool
