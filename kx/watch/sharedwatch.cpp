#include <kx/watch/sharedwatch.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <kxerror/kxerror.hpp>

#include <kx/text.hpp>
#include <kx/watch/summary.hpp>
#include <kx/watch/watchedkeys.hpp>
#include <kx/watch/watchlog.hpp>
#include <kx/watch/writers.hpp>

namespace KX::tool {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int kShortestFetchMs = 100;

class SharedWatch {
 public:
  SharedWatch(KXWatchOptions const& options, KXSession const& session, KXWatchedKeys const& keys,
              KXOutput& output, KXStop const& stop)
      : mOptions(options), mSession(session), mKeys(keys), mOutput(output), mStop(stop) {}
  ~SharedWatch() { xTakeBack(); }
  SharedWatch(SharedWatch const&) = delete;
  SharedWatch& operator=(SharedWatch const&) = delete;

  void run() {
    if (mOptions.duration) mEnd = SteadyClock::now() + *mOptions.duration;
    mWriter = makeWriter(mOptions.format, mKeys, [this] { return xTerminal(); });
    mOutput.write(mWriter->begin(), mEnd);
    xStart();
    std::chrono::milliseconds const pause(std::max(mOptions.periodMs, kShortestFetchMs));
    auto fetch = SteadyClock::now();
    while (!mStop.isRequested() && !mOutput.isClosed() && SteadyClock::now() < mEnd) {
      fetch = std::max(fetch + pause, SteadyClock::now());
      mStop.waitUntil(std::min(fetch, mEnd));
      if (SteadyClock::now() < mEnd) xFetch(false);
    }
    if (std::exchange(mHasStarted, false)) xCall("stopWatching");
    xFetch(true);
    mOutput.finish();
    say(sharedSummaryText(mKeys, mCounts));
  }

 private:
  KXTerminal xTerminal() {
    KXTerminal terminal = mOutput.terminal();
    terminal.isDisturbed = mLog.takeHasWarned() && isatty(STDERR_FILENO) == 1;
    return terminal;
  }

  KXValue xCall(std::string const& method, std::vector<KXValue> arguments = {}) const {
    return mSession.call("KXMemoryWatcher", method, std::move(arguments));
  }

  void xStart() {
    std::vector<std::string> listeners;
    xCall("listeners").ToStringArray(listeners, false);
    std::set<std::string> const former(listeners.begin(), listeners.end());
    bool const isWatching = static_cast<bool>(xCall("isWatching"));
    KXSharedWatcher shared;
    for (std::string const& key : mKeys.events) {
      if (isWatching && former.contains(key)) shared.formerEvents.insert(key);
    }
    mReader.emplace(
        mKeys, [this](std::string const& key) { return isEventByNow(mSession, key); }, shared);

    xAdd(mKeys.columns(), former);
    if (isWatching) {
      xCall("setPeriodMs", {mOptions.periodMs});
    } else {
      mHasStarted = true;
      xCall("startWatching", {mOptions.periodMs});
    }
    xAdd(mKeys.events, former);
  }

  void xAdd(std::vector<std::string> const& keys, std::set<std::string> const& former) {
    std::vector<std::string> missing;
    std::ranges::remove_copy_if(keys, std::back_inserter(missing),
                                [&](std::string const& key) { return former.contains(key); });
    mAdded.insert(mAdded.end(), missing.begin(), missing.end());
    if (!missing.empty()) xCall("addListeners", {missing});
  }

  void xFetch(bool isLast) {
    KXFetched const fetched = mReader->read(xCall("getData"), isLast);
    for (KXBatch const& batch : fetched.batches) mCounts.samples += batch.sampleCount();
    mCounts.events += static_cast<std::int64_t>(fetched.events.size());
    mOutput.write(mWriter->next(fetched, isLast), mEnd);
  }

  void xTakeBack() noexcept {
    try {
      if (mHasStarted) xCall("stopWatching");
      if (!mAdded.empty()) xCall("removeListeners", {mAdded});
    } catch (std::exception const& error) {
      say("the robot's watcher keeps what it was given: " + forTerminal(error.what()));
    }
  }

  KXWatchOptions const& mOptions;
  KXSession const& mSession;
  KXWatchedKeys const& mKeys;
  KXOutput& mOutput;
  KXStop const& mStop;
  KXWatchLog mLog;
  std::unique_ptr<KXSampleWriter> mWriter;
  std::optional<KXSampleReader> mReader;
  KXWatchCounts mCounts;
  bool mHasStarted = false;
  std::vector<std::string> mAdded;
  SteadyClock::time_point mEnd = SteadyClock::time_point::max();  ///< of --for
};

}  // namespace

void watchShared(KXWatchOptions const& options, KXSession const& session, KXWatchedKeys const& keys,
                 KXOutput& output, KXStop const& stop) {
  SharedWatch(options, session, keys, output, stop).run();
}

}  // namespace KX::tool
