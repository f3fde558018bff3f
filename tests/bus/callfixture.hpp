// A robot with a callee and a caller, each with a connection of its own to one bus.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <host/bus/kxcaller.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxserver.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/parkinggate.hpp>
#include <tests/support/testhost.hpp>

#include <gtest/gtest.h>
#include <tests/support/waituntil.hpp>

namespace KX::testing {

using Clock = std::chrono::steady_clock;

inline std::int64_t msSince(Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
}

/// Bytes of which no part is like its neighbour.
inline std::string filled(int size) {
  std::string pattern(251, '\0');
  for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>(i);
  std::string bytes;
  auto const wanted = static_cast<std::size_t>(size);
  bytes.reserve(wanted + pattern.size());
  while (bytes.size() < wanted) bytes += pattern;
  bytes.resize(wanted);
  return bytes;
}

/// How a call ended: its result, or its error.
struct Outcome {
  KXValue result{};
  std::optional<KXError> error{};
  std::int64_t tookMs = 0;

  std::string text() const { return error ? error->what() : result.toString(1); }
  KXError::Kind kind() const {
    if (error) return error->getKind();
    ADD_FAILURE() << "no error, but " << result.toString(1);
    return KXError::Kind::Failed;
  }
};

inline Outcome outcomeOf(std::function<KXValue()> const& step) {
  Outcome outcome;
  auto const begin = Clock::now();
  try {
    outcome.result = step();
  } catch (KXError const& error) {
    outcome.error = error;
  }
  outcome.tookMs = msSince(begin);
  return outcome;
}

/// After this a request is sent again.
inline constexpr std::int64_t kFirstRepeatMs = 500;

/// That a call which cannot succeed fails as soon as this is known: if it waited for its first
/// repeat, each of ten would; on a busy machine one or the other takes as long.
inline void expectNoWait(std::function<Outcome()> const& call) {
  int slowCount = 0;
  for (int i = 0; i < 10; ++i) {
    Outcome const outcome = call();
    EXPECT_TRUE(outcome.error);
    if (outcome.tookMs >= kFirstRepeatMs) ++slowCount;
  }
  EXPECT_LE(slowCount, 5);
}

/// One process with modules, of which "Module" answers
///   echo(...): the arguments; count(key): how often it was called so; twice(text): the text twice;
///   fill(bytes): binary data; fail(text), failStd(text): throws; park(): waits at the gate.
class Callee {
 public:
  Callee(KXBus& bus, std::string const& brokerName = "callee", KXServerOptions options = {})
      : host(brokerName) {
    host.publishScript("Module", [this](std::string const& method, KXValue const& params) {
      return xAnswer(method, params);
    });
    server = std::make_unique<KXServer>(bus, host.getBroker(), KXSubjects("r"), options);
    server->serve("Module");
  }
  ~Callee() {
    gate.open();
    server.reset();  // its calls use the rest, as those of its tasks
    host.getBroker()->shutdown();
  }

  int runs(int key) const {
    std::lock_guard const lock(mMutex);
    auto const found = mRuns.find(key);
    return found == mRuns.end() ? 0 : found->second;
  }
  int totalRuns() const {
    std::lock_guard const lock(mMutex);
    int total = 0;
    for (auto const& [key, count] : mRuns) total += count;
    return total;
  }
  int mostRuns() const {
    std::lock_guard const lock(mMutex);
    int most = 0;
    for (auto const& [key, count] : mRuns) most = std::max(most, count);
    return most;
  }

  TestHost host;
  ParkingGate gate;
  std::unique_ptr<KXServer> server;

 private:
  KXValue xAnswer(std::string const& method, KXValue const& params) {
    if (method == "echo") return params;
    if (method == "count") {
      std::lock_guard const lock(mMutex);
      return ++mRuns[static_cast<int>(params[0])];
    }
    if (method == "fill") {
      std::lock_guard const lock(mMutex);
      ++mRuns[0];
      return KXValue::binary(filled(static_cast<int>(params[0])));
    }
    if (method == "park") {
      gate.pass();
      return true;
    }
    if (method == "nothing") return {};
    if (method == "fail") {
      throw KXError("Deep", "down", static_cast<std::string const&>(params[0]), "deep/down", 42,
                    KXError::Kind::NotFound);
    }
    if (method == "failStd") throw std::runtime_error(static_cast<std::string const&>(params[0]));
    if (method == "failInt") throw 5;
    throw KXError("Module", "execute", "unknown method '" + method + "'", "", 0,
                  KXError::Kind::NotFound);
  }

  mutable std::mutex mMutex;
  std::map<int, int> mRuns;  // guarded by mMutex
};

/// A network in memory, a callee that serves "Module", and a caller with a time-out of 5 s.
class CallTest : public ::testing::Test {
 protected:
  explicit CallTest(std::size_t maxPayload = 1024 * 1024)
      : network(KXBusNetwork::Pacing::Threaded, maxPayload),
        calleeBus(network.connect()),
        callerBus(network.connect("viewer")) {
    callee = std::make_unique<Callee>(*calleeBus);
    setFaults({});
    newCaller(5000);
  }

  void newCaller(int timeoutMs) {
    caller.reset();
    caller = std::make_unique<KXCaller>(*callerBus, KXSubjects("r"), "r", timeoutMs);
  }
  template <class... P>
  Outcome call(std::string const& method, P const&... arguments) {
    return callFor(0, method, arguments...);
  }
  template <class... P>
  Outcome callFor(int timeoutMs, std::string const& method, P const&... arguments) {
    return callModule("Module", timeoutMs, method, KXValue::arrayOf(KXValue(arguments)...));
  }
  Outcome callModule(std::string const& module, int timeoutMs, std::string const& method,
                     KXValue const& params) {
    return outcomeOf([&] {
      KXValue result;
      caller->call(module, method, params, result, timeoutMs);
      return result;
    });
  }
  /// Makes a call that leaves for the callee, and breaks it off. One that leaves too late for its
  /// time-out, because the machine was slow, leaves not at all.
  template <class... P>
  void breakOff(std::string const& method, P const&... arguments) {
    int const before = requestCount;
    EXPECT_TRUE(waitUntil([&] {
      EXPECT_EQ(callFor(20, method, arguments...).kind(), KXError::Kind::TimedOut);
      return requestCount > before;
    }));
  }

  /// That the method ran once although something was lost on the way.
  void expectOnce(Outcome const& outcome, int key) {
    EXPECT_FALSE(outcome.error) << outcome.text();
    EXPECT_EQ(outcome.result, KXValue(1));
    EXPECT_EQ(callee->runs(key), 1);
  }
  /// Waits for a line in the callee's log.
  bool isLogged(std::string const& text) const {
    return waitUntil([&] {
      return std::ranges::any_of(callee->host.getLogged(),
                                 [&](LogLine const& line) { return line.text == text; });
    });
  }
  void setFaults(KXBusNetwork::Faults faults) {
    network.setFaults([this, faults = std::move(faults)](KXBusTransfer const& transfer) {
      if (isRequest(transfer.message)) ++requestCount;
      return faults ? faults(transfer) : KXBusFate{};
    });
  }
  /// Loses so many of the messages that the condition holds for.
  void lose(int count, std::function<bool(KXBusMessage const&)> condition) {
    auto const left = std::make_shared<int>(count);
    setFaults([left, condition = std::move(condition)](KXBusTransfer const& transfer) {
      if (*left == 0 || !condition(transfer.message)) return KXBusFate{};
      --*left;
      return KXBusFate{.delaysUs = {}};
    });
  }
  static bool isRequest(KXBusMessage const& message) {
    return !message.header(kCallHeader).empty() && message.header(kDoneHeader).empty();
  }
  static bool isReply(KXBusMessage const& message) { return message.subject.starts_with("_INBOX"); }

  std::atomic<int> requestCount = 0;  ///< of those that have left, repeats among them
  KXBusNetwork network;
  std::unique_ptr<KXBus> calleeBus;
  std::unique_ptr<KXBus> callerBus;
  std::unique_ptr<Callee> callee;
  std::unique_ptr<KXCaller> caller;
};

}  // namespace KX::testing
