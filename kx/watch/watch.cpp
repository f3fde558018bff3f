// kx watch: samples keys with the watcher and prints what it took.
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kxerror/kxerror.hpp>

#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>
#include <kx/watch/clocks.hpp>
#include <kx/watch/cyclelog.hpp>
#include <kx/watch/punctuality.hpp>
#include <kx/watch/samples.hpp>
#include <kx/watch/sharedwatch.hpp>
#include <kx/watch/summary.hpp>
#include <kx/watch/watchedkeys.hpp>
#include <kx/watch/watchlog.hpp>
#include <kx/watch/writers.hpp>

namespace KX::tool {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;
using std::chrono::microseconds;

SteadyTime steadyTime(std::int64_t monotonicUs) {
  return SteadyTime(microseconds(monotonicUs));
}

// One watch from its start to its summary. The session outlives it.
class Watch {
 public:
  Watch(KXWatchOptions const& options, KXSession const& session, KXWatchedKeys keys,
        KXOutput& output, KXStop const& stop)
      : mOptions(options),
        mPeriodMs(correctedPeriodMs(options.periodMs)),
        mSession(session),
        mKeys(std::move(keys)),
        mOutput(output),
        mStop(stop),
        mReader(mKeys, [this](std::string const& key) { return isEventByNow(mSession, key); }),
        mWriter(makeWriter(options.format, mKeys, [this] { return terminalOf(mOutput, mLog); })) {}

  void run() {
    xStart();
    mOutput.write(mWriter->begin(), mEnd);
    xFetchUntilEnd();
    std::int64_t const stopUs = readClocks().monotonicUs;
    xCall("stopWatching");
    xFetch(stopUs);
    mOutput.finish();
    say(summaryText(mPunctuality->report(), mPeriodMs, mKeys, mCounts));
  }

 private:
  KXValue xCall(std::string const& method, std::vector<KXValue> arguments = {}) const {
    return mSession.call("KXMemoryWatcher", method, std::move(arguments));
  }

  void xStart() {
    // Data keys before the start: added later, each would begin with a sample outside any batch.
    xCall("addListeners", {mKeys.columns()});
    if (mOptions.isCyclePaced) mCycleLog.emplace(mSession.vsm());
    std::int64_t const cyclesBefore = mCycleLog ? mCycleLog->count() : 0;
    KXClocks const start = readClocks();
    xCall("startWatching", {mOptions.periodMs});
    std::int64_t const cyclesAfter = mCycleLog ? mCycleLog->count() : 0;

    std::int64_t limit = KXPunctuality::kNoLimit;
    if (mOptions.duration) {
      limit = periodsAsked(*mOptions.duration, mPeriodMs);
      mEnd = steadyTime(start.monotonicUs) + *mOptions.duration;
    }
    mTimeline.emplace(mPeriodMs, start);
    if (mCycleLog) {
      auto punctuality = std::make_unique<KXCyclePunctuality>(mPeriodMs, start.monotonicUs, limit);
      punctuality->setFirstCycle(cyclesBefore, cyclesAfter);
      mCyclePunctuality = punctuality.get();
      mPunctuality = std::move(punctuality);
    } else {
      mPunctuality = std::make_unique<KXTimedPunctuality>(mPeriodMs, start.monotonicUs, limit);
    }
    xAddEventKeys();
  }

  // After the start: the watcher subscribes to a key only if it is added meanwhile.
  void xAddEventKeys() {
    for (std::string const& key : mKeys.events) {
      try {
        xCall("addListener", {key});
      } catch (KXError const& error) {
        // Its key may have vanished since it was listed; the others are watched all the same.
        say("cannot watch '" + forTerminal(key) + "': " + forTerminal(error.what()));
      }
    }
  }

  void xFetchUntilEnd() {
    while (!mStop.isRequested() && !mOutput.isClosed()) {
      SteadyTime const fetch =
          steadyTime(nextFetchUs(readClocks().monotonicUs, mPunctuality->dueTimeUs(), mPeriodMs));
      mStop.waitUntil(std::min(fetch, mEnd));
      if (std::chrono::steady_clock::now() >= mEnd) return;
      xFetch(std::nullopt);
    }
  }

  // With the moment of the stop, this is the last fetch.
  void xFetch(std::optional<std::int64_t> stopUs) {
    KXFetched fetched = mReader.read(xCall("getData"), stopUs.has_value());
    KXClocks const now = readClocks();
    std::int64_t const failedReads = mLog.failedReads();
    mPunctuality->addFailedReads(failedReads - std::exchange(mFailedReads, failedReads));
    if (mCycleLog) mCyclePunctuality->addCycles(mCycleLog->takeDeadlinesUs());
    std::vector<std::int64_t> wallTimesUs;
    for (KXBatch const& batch : fetched.batches) wallTimesUs.push_back(batch.timeUs);
    for (std::int64_t const timeUs : mTimeline->toMonotonic(std::move(wallTimesUs), now)) {
      mPunctuality->addBatch(timeUs);
    }
    if (stopUs) mPunctuality->finish(*stopUs);
    // What was taken between the last period of --for and the stop was not asked for.
    auto const beyond = static_cast<std::size_t>(mPunctuality->takeBeyondLimit());
    fetched.batches.resize(fetched.batches.size() - std::min(beyond, fetched.batches.size()));
    for (KXBatch const& batch : fetched.batches) mCounts.samples += batch.sampleCount();
    mCounts.events += static_cast<std::int64_t>(fetched.events.size());
    mOutput.write(mWriter->next(fetched, stopUs.has_value()), mEnd);
  }

  KXWatchOptions const& mOptions;
  int const mPeriodMs;  ///< as the watcher corrects it
  KXSession const& mSession;
  KXWatchedKeys const mKeys;
  KXOutput& mOutput;
  KXStop const& mStop;
  KXWatchLog mLog;
  KXSampleReader mReader;
  std::unique_ptr<KXSampleWriter> const mWriter;
  std::optional<KXCycleLog> mCycleLog;  ///< where the hardware cycle paces
  std::optional<KXTimeline> mTimeline;
  std::unique_ptr<KXPunctuality> mPunctuality;
  KXCyclePunctuality* mCyclePunctuality = nullptr;  ///< mPunctuality, where the cycle paces
  KXWatchCounts mCounts;
  std::int64_t mFailedReads = 0;
  SteadyTime mEnd = SteadyTime::max();  ///< of --for
};

// A table of batches has no place for what comes at moments of its own.
void leaveOutEvents(KXWatchedKeys& keys) {
  if (keys.events.empty()) return;
  if (keys.data.empty() && keys.unknown.empty()) {
    throw KXUsageError(
        "--format csv: expected at least one data key, got event keys only; "
        "--format jsonl prints them");
  }
  say("--format csv has one row per batch: event keys are left out; --format jsonl prints them");
  keys.events.clear();
}

}  // namespace

int watch(KXWatchOptions const& options, KXOutput& output, KXStop const& stop) {
  KXSession const session({.withVsm = options.isCyclePaced,
                           .withWatcher = !options.isShared,
                           .libraries = options.libraries,
                           .bus = options.bus},
                          stop);
  if (options.isShared && !session.isModuleThere("KXMemoryWatcher")) {
    throw KXToolError(kNothingThere,
                      "the robot has no watcher that is shared (KXMemoryWatcher); "
                      "memorywatcher --bus URL puts one there");
  }
  session.awaitMatches(options.patterns, stop);
  KXWatchedKeys keys = findKeys(session, options.patterns);
  if (options.format == KXFormat::Csv) leaveOutEvents(keys);
  if (options.isShared) {
    watchShared(options, session, keys, output, stop);
    return kOk;
  }
  session.keepSensorsAhead(correctedPeriodMs(options.periodMs));
  Watch(options, session, std::move(keys), output, stop).run();
  return kOk;
}

}  // namespace KX::tool
