#include <kx/watch/sharedwatch.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <host/bus/kxsubject.hpp>
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
    mWriter = makeWriter(mOptions.format, mKeys, [this] { return terminalOf(mOutput, mLog); });
    mOutput.write(mWriter->begin(), mEnd);
    xGive();
    std::chrono::milliseconds const pause(std::max(mOptions.periodMs, kShortestFetchMs));
    auto fetch = SteadyClock::now();
    while (!mStop.isRequested() && !mOutput.isClosed() && SteadyClock::now() < mEnd) {
      fetch = std::max(fetch + pause, SteadyClock::now());
      mStop.waitUntil(std::min(fetch, mEnd));
      if (SteadyClock::now() < mEnd) xFetch(false);
    }
    xFetch(true);
    mOutput.finish();
    say(sharedSummaryText(mKeys, mCounts));
  }

 private:
  KXValue xCall(std::string const& method, std::vector<KXValue> arguments = {}) const {
    return mSession.call("KXMemoryWatcher", method, std::move(arguments));
  }

  /// Tells the process that has the watcher from those that had it before.
  std::string xHolder() const { return static_cast<std::string const&>(xCall(kFindMethod)); }

  /// What the watcher lacks of this watch.
  void xGive() {
    mIsGiven = false;
    std::string const holder = xHolder();
    if (std::exchange(mHolder, holder) != holder) {
      // What was given to the one before has gone with it. What this one has, others gave it.
      mHasStarted = false;
      mAdded.clear();
    }
    std::vector<std::string> listeners;
    xCall("listeners").ToStringArray(listeners, false);
    std::set<std::string> const former(listeners.begin(), listeners.end());
    bool const isWatching = static_cast<bool>(xCall("isWatching"));
    KXSharedWatcher shared;
    for (std::string const& key : mKeys.events) {
      if (isWatching && former.contains(key)) shared.formerEvents.insert(key);
    }
    // What still waits for the rest of its batch waits in vain.
    if (mReader) xPrint(mReader->read(KXValue::arrayOf(), true), false);
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
    mIsGiven = true;
  }

  void xAdd(std::vector<std::string> const& keys, std::set<std::string> const& former) {
    std::vector<std::string> missing;
    std::ranges::remove_copy_if(keys, std::back_inserter(missing),
                                [&](std::string const& key) { return former.contains(key); });
    mAdded.insert(missing.begin(), missing.end());
    if (!missing.empty()) xCall("addListeners", {missing});
  }

  void xFetch(bool isLast) {
    KXValue const taken = xTake(isLast);
    xPrint(mReader->read(taken, isLast), isLast);
  }

  /// What the watcher took, which is nothing while it does not answer.
  KXValue xTake(bool isLast) {
    KXValue taken = KXValue::arrayOf();
    try {
      if (isLast && mHasStarted && xHolder() == mHolder) {
        mHasStarted = false;
        xCall("stopWatching");
      }
      taken = xCall("getData");
      // Another process may be in the place of the one that was given the keys.
      bool const isLacking = !isLast && (!mIsGiven || !xHasAllKeys(taken));
      if (isLacking) xGive();
      if (std::exchange(mIsAway, false) || isLacking) say("the robot's watcher is back");
    } catch (KXError const& error) {
      if (error.getKind() == KXError::Kind::Failed || error.getKind() == KXError::Kind::Refused) {
        throw;
      }
      if (!std::exchange(mIsAway, true)) {
        say("the robot's watcher does not answer and is asked again: " + forTerminal(error.what()));
      }
    }
    return taken;
  }

  bool xHasAllKeys(KXValue const& taken) const {
    std::set<std::string> keys;
    for (int i = 0; i < taken.getSize(); ++i) {
      keys.insert(static_cast<std::string const&>(taken[i][0]));
    }
    auto const isThere = [&](std::string const& key) {
      return keys.contains(key);
    };
    return std::ranges::all_of(mKeys.columns(), isThere) &&
           std::ranges::all_of(mKeys.events, isThere);
  }

  void xPrint(KXFetched const& fetched, bool isLast) {
    for (KXBatch const& batch : fetched.batches) mCounts.samples += batch.sampleCount();
    mCounts.events += static_cast<std::int64_t>(fetched.events.size());
    mOutput.write(mWriter->next(fetched, isLast), mEnd);
  }

  void xTakeBack() noexcept {
    if (!mHasStarted && mAdded.empty()) return;
    try {
      if (xHolder() != mHolder) return;
      if (mHasStarted) xCall("stopWatching");
      if (!mAdded.empty()) {
        xCall("removeListeners", {std::vector<std::string>(mAdded.begin(), mAdded.end())});
      }
    } catch (std::exception const& error) {
      auto const* const failure = dynamic_cast<KXError const*>(&error);
      // With its process all that it was given is gone.
      if (failure != nullptr && failure->getKind() == KXError::Kind::NotFound) return;
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
  std::string mHolder;  ///< has been given what follows
  bool mHasStarted = false;
  std::set<std::string> mAdded;
  bool mIsGiven = false;  ///< period, keys and start, as far as is known
  bool mIsAway = false;   ///< the last call got no answer
  SteadyClock::time_point mEnd = SteadyClock::time_point::max();  ///< of --for
};

}  // namespace

void watchShared(KXWatchOptions const& options, KXSession const& session, KXWatchedKeys const& keys,
                 KXOutput& output, KXStop const& stop) {
  SharedWatch(options, session, keys, output, stop).run();
}

}  // namespace KX::tool
