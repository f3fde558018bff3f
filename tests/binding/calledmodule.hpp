// The module that the tests of calls call.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxpublish.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/parkinggate.hpp>

namespace KX {

/// Publishes methods of most signatures, as bound methods or as a script that answers the same.
class CalledModule : public KXModule {
 public:
  using Texts = std::vector<std::string>;
  enum class Kind { Bound, Script };

  CalledModule(boost::shared_ptr<KXBroker> const& broker, Kind kind) : KXModule(broker, "Called") {
    if (kind == Kind::Script) setScript();
    publish(*this, {"isKnown"}, &CalledModule::isKnown);
    publish(*this, {"getLength"}, &CalledModule::getLength);
    publish(*this, {"negate"}, &CalledModule::negate);
    publish(*this, {"halve"}, &CalledModule::halve);
    publish(*this, {"greet"}, &CalledModule::greet);
    publish(*this, {"split"}, &CalledModule::split);
    publish(*this, {"echo"}, &CalledModule::echo);
    publish(*this, {"nothing"}, &CalledModule::nothing);
    publish(*this, {"takeText"}, &CalledModule::takeText);
    publish(*this, {"takeInt"}, &CalledModule::takeInt);
    publish(*this, {"fail"}, &CalledModule::fail);
    publish(*this, {"park"}, &CalledModule::park);
  }

  bool isKnown(std::string const& name) { return xEnter() && name == "VSM"; }
  int getLength(std::string const& text) { return xEnter() ? static_cast<int>(text.size()) : 0; }
  int negate(int const& number) { return xEnter() ? -number : 0; }
  double halve(double const& number) { return xEnter() ? number / 2 : 0; }
  std::string greet(std::string const& name, int const& times) {
    return xEnter() ? name + "*" + std::to_string(times) : "";
  }
  Texts split() { return xEnter() ? Texts{"a", "b"} : Texts(); }
  KXValue echo(KXValue const& value) { return xEnter() ? value : KXValue(); }
  void nothing() { xEnter(); }
  void takeText(std::string const&) { xEnter(); }
  bool takeInt(int const& number) { return xEnter() && number > 0; }
  void fail() { throw KXError("Called", "fail", "as told", "somewhere", 7); }
  /// Stays until the test opens the gate.
  void park() {
    xEnter();
    gate.pass();
  }

  testing::ParkingGate gate;
  std::atomic<int> enteredCount{0};

 private:
  bool xEnter() { return ++enteredCount > 0; }
};

}  // namespace KX
