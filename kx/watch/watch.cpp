// kx watch: samples keys with the watcher and prints what it took.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include <kxerror/kxerror.hpp>

#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>
#include <kx/watch/punctuality.hpp>
#include <kx/watch/samples.hpp>
#include <kx/watch/summary.hpp>
#include <kx/watch/watchedkeys.hpp>
#include <kx/watch/watchlog.hpp>
#include <kx/watch/writers.hpp>

namespace KX::tool {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;
using std::chrono::microseconds;
using namespace std::chrono_literals;

std::int64_t wallClockUs() {
  auto const time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<microseconds>(time).count();
}

// One watch from its start to its summary. The session outlives it.
class Watch {
 public:
  Watch(KXWatchOptions const& options, KXSession const& session, KXWatchedKeys keys,
        KXOutput& output, KXStop const& stop)
      : mOptions(options),
        mPeriodMs(correctedPeriodMs(options.periodMs)),
        mPacing(options.isCyclePaced ? KXPacing::Cycle : KXPacing::Timed),
        mSession(session),
        mKeys(std::move(keys)),
        mOutput(output),
        mStop(stop),
        mReader(mKeys),
        mWriter(makeWriter(options.format, mKeys, [this] { return xTerminal(); })) {}

  void run() {
    mOutput.write(mWriter->begin());
    xStart();
    xFetchUntilEnd();
    std::int64_t const durationUs = microseconds(mOptions.duration.value_or(0ms)).count();
    std::int64_t const stopUs = mIsOver ? mStartUs + durationUs : wallClockUs();
    xCall("stopWatching");
    xFetch(true);
    auto const report = mPunctuality->report(stopUs, mLog.failedReads());
    say(summaryText(report, mPacing, mPeriodMs, mKeys, mCounts));
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
    // Data keys before the start: added later, each would begin with a sample outside any batch.
    xCall("addListeners", {mKeys.columns()});
    mStartTime = std::chrono::steady_clock::now();
    mStartUs = wallClockUs();
    mPunctuality = std::make_unique<KXPunctuality>(mPeriodMs, mStartUs, mPacing);
    xCall("startWatching", {mOptions.periodMs});
    // Event keys after the start: the watcher subscribes to a key only if it is added meanwhile.
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
    // A millisecond early, because a period that is due at the very end is not asked for.
    SteadyTime const end =
        mOptions.duration ? mStartTime + *mOptions.duration - 1ms : SteadyTime::max();
    while (!mStop.isRequested() && !mOutput.isClosed()) {
      std::int64_t const nowUs = wallClockUs();
      std::int64_t const untilFetchUs =
          nextFetchUs(nowUs, mPunctuality->dueTimeUs(), mPeriodMs) - nowUs;
      SteadyTime const fetch = std::chrono::steady_clock::now() + microseconds(untilFetchUs);
      mStop.waitUntil(std::min(fetch, end));
      mIsOver = std::chrono::steady_clock::now() >= end;
      if (mIsOver) return;
      xFetch(false);
    }
  }

  void xFetch(bool isLast) {
    KXFetched const fetched = mReader.read(xCall("getData"), isLast);
    for (KXBatch const& batch : fetched.batches) mPunctuality->addBatch(batch.timeUs);
    for (KXSample const& sample : fetched.samples) {
      ++(sample.isEvent ? mCounts.events : mCounts.samples);
    }
    mOutput.write(mWriter->next(fetched, isLast));
  }

  KXWatchOptions const& mOptions;
  int const mPeriodMs;  ///< as the watcher corrects it
  KXPacing const mPacing;
  KXSession const& mSession;
  KXWatchedKeys const mKeys;
  KXOutput& mOutput;
  KXStop const& mStop;
  KXWatchLog mLog;
  KXSampleReader mReader;
  std::unique_ptr<KXSampleWriter> const mWriter;
  std::unique_ptr<KXPunctuality> mPunctuality;
  KXWatchCounts mCounts;
  SteadyTime mStartTime;
  std::int64_t mStartUs = 0;
  bool mIsOver = false;  ///< --for has passed
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

// Sensors that are read more rarely than they are sampled would give each value several times.
void keepSensorsAhead(KXSession const& session, int periodMs) {
  int const sensorsMs = static_cast<int>(session.call("KXHostSensors", "getPeriodMs"));
  if (periodMs < sensorsMs) session.call("KXHostSensors", "setPeriodMs", {periodMs});
}

}  // namespace

int watch(KXWatchOptions const& options, KXOutput& output, KXStop const& stop) {
  KXSession const session({.withVsm = options.isCyclePaced, .withWatcher = true}, stop);
  KXWatchedKeys keys = findKeys(session, options.patterns);
  if (options.format == KXFormat::Csv) leaveOutEvents(keys);
  keepSensorsAhead(session, correctedPeriodMs(options.periodMs));
  Watch(options, session, std::move(keys), output, stop).run();
  return kOk;
}

}  // namespace KX::tool
