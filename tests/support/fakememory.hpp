// A store driven by hand: records every call, and does in it whatever the test wants.
// Any thread may call it; the test may look at it and change it meanwhile.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxmodule.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// A module "KXMemory" with the reading and subscribing methods of the store and no delivery.
/// It knows the keys that the test has set; other keys are a KXError for getType and getData and
/// an invalid value for getListData. Every subscription is accepted, and every end of one too.
///
/// Each call is recorded first, then the hook of its method runs, without any lock held: it may
/// throw anything, block, or give the answer itself.
class FakeMemory : public KXModule {
 public:
  /// One call as it came: the method's name and its arguments in order.
  struct Call {
    std::string method;
    std::vector<KXValue> arguments;

    bool operator==(Call const&) const = default;
  };
  /// A valid `result` is the answer, in place of the store's own.
  using Hook = std::function<void(Call const& call, KXValue& result)>;

  explicit FakeMemory(boost::shared_ptr<KXBroker> const& broker);
  ~FakeMemory() override;

  void set(std::string const& name, std::string const& type, KXValue const& value);
  void setValue(std::string const& name, KXValue const& value);
  void forget(std::string const& name);

  /// Sets, replaces or (with an empty function) removes a method's hook.
  void setHook(std::string const& method, Hook hook);
  /// Hooks that throw.
  static Hook throwing(std::string const& text);
  template <class T>
  static Hook throwingValue(T value) {
    return [value](Call const&, KXValue&) {
      throw value;
    };
  }

  /// Makes calls of that method wait inside the store from now on, until release().
  void block(std::string const& method);
  /// Lets the waiting calls of that method go on, and later ones pass.
  void release(std::string const& method);
  /// Waits until `count` calls of blocked methods wait inside the store; false after 30 s.
  bool waitUntilParked(int count = 1);
  /// Waits until that method has been called `count` times in all; false after 30 s.
  bool waitForCalls(std::string const& method, int count);

  std::vector<Call> getCalls() const;
  std::vector<Call> getCalls(std::string const& method) const;
  void clearCalls();

  KXValue getData(std::string const& name);
  KXValue getListData(KXValue const& names);
  std::string getType(std::string const& name);
  void subscribeToEvent(std::string const& name, std::string const& callbackModule,
                        std::string const& callbackMethod);
  void subscribeToMicroEvent(std::string const& name, std::string const& callbackModule,
                             std::string const& callbackMessage, std::string const& callbackMethod);
  void unsubscribeToEvent(std::string const& name, std::string const& callbackModule);
  void unsubscribeToMicroEvent(std::string const& name, std::string const& callbackModule);

 private:
  struct Key {
    std::string type;
    KXValue value;
  };

  // Records, waits if the method is blocked, and runs its hook. Returns the hook's answer.
  KXValue xEnter(Call const& call);
  Key xFind(std::string const& method, std::string const& name) const;

  mutable std::mutex mMutex;  // guards all below
  std::condition_variable mChanged;
  std::map<std::string, Key> mKeys;
  std::map<std::string, Hook> mHooks;
  std::map<std::string, bool> mBlocked;
  std::vector<Call> mCalls;
  int mParkedCount = 0;
};

}  // namespace KX
