// A host for tests: a real broker in this process, modules put into it, and a record of the log.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxproxycall.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxvalue/kxvalue.hpp>
#include <tests/support/logcapture.hpp>

namespace KX::testing {

/// What a script module does with a call; what it returns is the result, invalid for none.
using Script = std::function<KXValue(std::string const& method, KXValue const& params)>;

/// A broker with its KXLauncher, for the tests of one module:
///
///     KX::testing::TestHost host;
///     host.publishScript("KXMemory", [](auto const& method, auto const& params) { ... });
///     host.publish<MyModule>();
///     EXPECT_EQ(host.call("MyModule", "answer"), KX::KXValue(42));
///
/// Ownership: owns the broker, and shuts it down in its destructor.
/// Threads: one thread builds and destroys; calls may come from any thread.
class TestHost {
 public:
  explicit TestHost(std::string const& brokerName = "testhost");
  ~TestHost();
  TestHost(TestHost const&) = delete;
  TestHost& operator=(TestHost const&) = delete;

  boost::shared_ptr<KXBroker> const& getBroker() const noexcept { return mBroker; }

  /// Publishes a module that is made from the broker alone.
  template <class Module>
  boost::shared_ptr<Module> publish() {
    return KXModule::createModule<Module>(mBroker);
  }
  /// Publishes a module that was made with getBroker() and other arguments; init() is called.
  void publish(boost::shared_ptr<KXModule> const& module);
  /// Publishes a script module that answers each call by the function.
  void publishScript(std::string const& name, Script script);

  boost::shared_ptr<KXProxy> getProxy(std::string const& module) const;
  /// Calls as a client does that knows nothing of types; the result is invalid if there is none.
  template <class... P>
  KXValue call(std::string const& module, std::string const& method, P const&... arguments) const {
    return getProxy(module)->genericCall(method, KXValue::arrayOf(KXValue(arguments)...));
  }

  /// What this process has logged since the host was made; none of it goes to stderr.
  std::vector<LogLine> getLogged() const { return mLog.lines(); }

 private:
  LogCapture const mLog;
  boost::shared_ptr<KXBroker> const mBroker;
};

}  // namespace KX::testing
