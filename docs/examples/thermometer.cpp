// A complete module: publishes two methods, writes a data key and raises an event.

#include <atomic>
#include <string>

#include <binding/kx.hpp>

class Thermometer : public KX::KXModule {
 public:
  explicit Thermometer(boost::shared_ptr<KX::KXBroker> const& broker)
      : KXModule(broker, "Thermometer") {
    setModuleDescription("Tells the temperature of the room.");
    KX::publish(*this,
                {"getCelsius", "Tells the last temperature.", {}, {"celsius", "degrees Celsius"}},
                &Thermometer::getCelsius);
    KX::publish(*this, {"setCelsius", "Takes a new temperature.", {{"celsius", "degrees Celsius"}}},
                &Thermometer::setCelsius);
  }

  // Called once the methods are published. A KXError thrown here refuses service.
  void init() override { store()->call<void>("declareEvent", "Room/TooHot"); }

  float getCelsius() { return mCelsius; }

  void setCelsius(float const& celsius) {
    mCelsius = celsius;
    store()->call<void>("insertData", "Room/Celsius", KX::KXValue(celsius));
    if (celsius > 30) {
      store()->call<void>("raiseEvent", "Room/TooHot", KX::KXValue(celsius));
    }
  }

 private:
  boost::shared_ptr<KX::KXProxy> store() { return getParentBroker()->getProxy("KXMemory", 0); }

  std::atomic<float> mCelsius{20};  // calls come on any thread, several at once
};

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  KX::KXModule::createModule<Thermometer>(broker);
  return 0;
}
extern "C" KX_API int _closeModule() {
  return 0;
}
