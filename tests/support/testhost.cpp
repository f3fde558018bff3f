#include <tests/support/testhost.hpp>

#include <atomic>
#include <utility>

#include <host/launcher/kxlauncher.hpp>

namespace KX::testing {
namespace {

std::string nextHandlerName() {
  static std::atomic<int> count{0};
  return "TestHost" + std::to_string(++count);
}

class ScriptModule : public KXModule {
 public:
  ScriptModule(boost::shared_ptr<KXBroker> const& broker, std::string const& name, Script script)
      : KXModule(broker, name), mScript(std::move(script)) {
    setScript();
  }

  void execute(std::string const& method, KXValue const& params, KXValue& result) override {
    KXValue const answer = mScript(method, params);
    if (answer.isValid()) result = answer;
  }

 private:
  Script const mScript;
};

}  // namespace

TestHost::TestHost(std::string const& brokerName)
    : mLogHandler(nextHandlerName()), mBroker(KXBroker::createBroker(brokerName)) {
  ka::log::addHandler(mLogHandler, [this](ka::log::Record const& record) {
    std::lock_guard<std::mutex> const lock(mMutex);
    mLogged.push_back(record);
  });
  publish<KXLauncher>();
}

TestHost::~TestHost() {
  mBroker->shutdown();
  ka::log::removeHandler(mLogHandler);
}

void TestHost::publish(boost::shared_ptr<KXModule> const& module) {
  module->initModule();
  module->init();
}

void TestHost::publishScript(std::string const& name, Script script) {
  publish(boost::shared_ptr<KXModule>(new ScriptModule(mBroker, name, std::move(script))));
}

boost::shared_ptr<KXProxy> TestHost::getProxy(std::string const& module) const {
  return mBroker->getProxy(module, 0);
}

std::vector<ka::log::Record> TestHost::getLogged() const {
  std::lock_guard<std::mutex> const lock(mMutex);
  return mLogged;
}

}  // namespace KX::testing
