// A module that tells of its life in the log, for the libraries and the program of the tests.
#pragma once

#include <string>

#include <binding/kxpublish.hpp>
#include <ka/log.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>

// Each library has its own copy of everything in here.
namespace {

inline void tell(std::string const& what) {
  ka::log::LogStream(ka::log::Info, "testmodule", "", "", 0) << what;
}

class TestModule : public KX::KXModule {
 public:
  TestModule(boost::shared_ptr<KX::KXBroker> const& broker, std::string const& name)
      : KXModule(broker, name) {
    KX::publish(
        *this,
        {"twice", "doubles a number", {{"number", "the number"}}, {"double", "the doubled number"}},
        &TestModule::twice);
    tell("made " + getName());
  }
  ~TestModule() override { tell("destroyed " + getName()); }
  void exit() override {
    tell("exit of " + getName());
    KXModule::exit();
  }

  int twice(int const& number) { return 2 * number; }
};

/// createModule() for a module with a name of its own.
inline int publish(boost::shared_ptr<KX::KXBroker> const& broker, std::string const& name) {
  boost::shared_ptr<TestModule> const module(new TestModule(broker, name));
  module->initModule();
  module->init();
  return 0;
}

}  // namespace
