// A library that the tests let the tool load: its keys come from a thread, after it was loaded.
#include <atomic>
#include <chrono>
#include <thread>

#include <binding/kx.hpp>

class LateKey : public KX::KXModule {
 public:
  explicit LateKey(boost::shared_ptr<KX::KXBroker> const& broker) : KXModule(broker, "LateKey") {
    setModuleDescription("Writes a key a while after it was loaded.");
  }
  ~LateKey() override { xStop(); }

  void init() override {
    mThread = std::thread([this] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      getParentBroker()
          ->getProxy("KXMemory", 0)
          ->call<void>("insertData", "Late/Key", KX::KXValue(7));
    });
  }
  void exit() override {
    xStop();
    KXModule::exit();
  }

 private:
  void xStop() {
    if (mThread.joinable()) mThread.join();
  }

  std::thread mThread;
};

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  KX::KXModule::createModule<LateKey>(broker);
  return 0;
}
extern "C" KX_API int _closeModule() {
  return 0;
}
