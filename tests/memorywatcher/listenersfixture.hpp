// Keys of each kind in the store, and what the module is to say and to ask about them.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {

/// The module with a data key, an event key and a micro-event key in the store, none of them added.
class ListenersTest : public WatcherTest {
 protected:
  ListenersTest() {
    mMemory->set("data", "Data", KXValue(5));
    mMemory->set("event", "Event", KXValue("e"));
    mMemory->set("micro", "MicroEvent", KXValue(0.5));
  }

  Calls calls() { return mMemory->getCalls(); }
  /// Adds keys and forgets which calls that made.
  void addQuietly(std::vector<std::string> const& names) {
    for (std::string const& name : names) add(name);
    mMemory->clearCalls();
    mLog.clear();
  }
  /// A key that is in both maps.
  void addToBothMaps(std::string const& name) {
    mMemory->forget(name);
    add(name);
    mMemory->set(name, "Event", KXValue(1));
    addQuietly({name});
  }
};

inline std::vector<std::string> keysOf(KXListenerMap const& map) {
  std::vector<std::string> keys;
  for (auto const& [key, item] : map) keys.push_back(key);
  return keys;
}

inline LogLine notFound(std::string const& name) {
  return {3,
          "memoryWatcher",
          "",
          "addListener",
          0,
          "The key " + name +
              " could not be found, but it will be watched as soon as it becomes available."};
}

inline LogLine refused(std::string const& function, std::string const& text) {
  return {3, "KXMemoryWatcher", "", function, 0, function + ":" + text + "\n"};
}

inline FakeMemory::Call subscribeEvent(std::string const& name) {
  return {"subscribeToEvent", {name, watcherName(), "_onEventNotify"}};
}
inline FakeMemory::Call subscribeMicro(std::string const& name) {
  return {"subscribeToMicroEvent", {name, watcherName(), "", "_onEventNotify"}};
}
inline FakeMemory::Call unsubscribeEvent(std::string const& name) {
  return {"unsubscribeToEvent", {name, watcherName()}};
}
inline FakeMemory::Call unsubscribeMicro(std::string const& name) {
  return {"unsubscribeToMicroEvent", {name, watcherName()}};
}

/// Runs `call` against every kind of exception that is no KXError, thrown by a method of the store.
/// A distant store throws none.
template <class Call>
void expectPropagation(FakeMemory& memory, std::string const& method, Call call) {
  memory.setHook(method, FakeMemory::throwingValue(std::runtime_error("broken")));
  expectStoreError<std::runtime_error>(call);
  memory.setHook(method, FakeMemory::throwingValue(42));
  expectStoreError<int>(call);
  memory.setHook(method, {});
}

/// The same against KXErrors.
template <class Call>
void expectErrorPropagation(FakeMemory& memory, std::string const& method, Call call) {
  memory.setHook(method, FakeMemory::throwing("refused"));
  try {
    call();
    ADD_FAILURE() << "no error";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "refused");
  }
  memory.setHook(method, FakeMemory::throwingValue(SilentError()));
  EXPECT_THROW(call(), KXError);
  memory.setHook(method, {});
}

}  // namespace KX
