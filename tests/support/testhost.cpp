#include <tests/support/testhost.hpp>

#include <utility>

#include <host/launcher/kxlauncher.hpp>

namespace KX::testing {
namespace {

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

TestHost::TestHost(std::string const& brokerName) : mBroker(KXBroker::createBroker(brokerName)) {
  publish<KXLauncher>();
}

TestHost::~TestHost() {
  mBroker->shutdown();
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

}  // namespace KX::testing
