#include <kxcommon/kxmodule.hpp>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <binding/kxpublish.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

// What happened to the modules of the running test.
Texts& events() {
  static Texts all;
  return all;
}

class DerivedError : public KXError {
 public:
  DerivedError() : KXError("Recorded", "init", "not today", "recorded.cpp", 5) {}
};

// Records its life. Only createModule() makes it, so what init() does stands outside.
class RecordedModule : public KXModule {
 public:
  enum class Init { Succeeds, ThrowsKXError, ThrowsOther };
  static inline Init initDoes = Init::Succeeds;

  explicit RecordedModule(boost::shared_ptr<KXBroker> const& broker)
      : KXModule(broker, "Recorded") {
    publish(*this, {"negate"}, &RecordedModule::negate);
    record("constructed");
  }
  ~RecordedModule() override { events().emplace_back("destroyed"); }

  int negate(int const& number) { return -number; }
  void init() override {
    record("init");
    if (initDoes == Init::ThrowsKXError) throw DerivedError();
    if (initDoes == Init::ThrowsOther) throw std::runtime_error("other");
  }
  void exit() override {
    record("exit");
    KXModule::exit();
  }

 private:
  void record(std::string const& what) {
    bool const isPresent = getParentBroker()->isModulePresent(getName());
    events().push_back(what + (isPresent ? ", published" : ", not published"));
  }
};

class Module : public ::testing::Test {
 protected:
  Module() {
    events().clear();
    RecordedModule::initDoes = RecordedModule::Init::Succeeds;
  }

  boost::shared_ptr<KXBroker> const mBroker = KXBroker::createBroker("test");
};

TEST_F(Module, IsMadeThenPublishedThenInitialised) {
  auto const module = KXModule::createModule<RecordedModule>(mBroker);

  EXPECT_EQ(events(), (Texts{"constructed, not published", "init, published"}));
  EXPECT_EQ(mBroker->getProxy("Recorded", 0)->getModule(), module);
}

TEST_F(Module, IsKeptByTheBroker) {
  KXModule::createModule<RecordedModule>(mBroker);

  EXPECT_TRUE(mBroker->isModulePresent("Recorded"));
  EXPECT_EQ(events().size(), 2U);
}

TEST_F(Module, ThatRefusesServiceExitsAndACopyOfItsErrorIsThrown) {
  RecordedModule::initDoes = RecordedModule::Init::ThrowsKXError;
  try {
    KXModule::createModule<RecordedModule>(mBroker);
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_EQ(typeid(error), typeid(KXError)) << "the error itself and no copy";
    EXPECT_EQ(error.getModuleName(), "Recorded");
    EXPECT_EQ(error.getMethodName(), "init");
    EXPECT_EQ(error.getDescription(), "not today");
    EXPECT_EQ(error.getFileName(), "recorded.cpp");
    EXPECT_EQ(error.getLine(), 5);
  }
  EXPECT_EQ(events(), (Texts{"constructed, not published", "init, published", "exit, published",
                             "destroyed"}));
  EXPECT_FALSE(mBroker->isModulePresent("Recorded"));
}

TEST_F(Module, ThatThrowsAnotherErrorIsNotExited) {
  RecordedModule::initDoes = RecordedModule::Init::ThrowsOther;

  EXPECT_THROW(KXModule::createModule<RecordedModule>(mBroker), std::runtime_error);

  EXPECT_EQ(events(), (Texts{"constructed, not published", "init, published"}));
}

TEST_F(Module, OfATakenNameIsDestroyedAndTheFirstStays) {
  auto const first = KXModule::createModule<RecordedModule>(mBroker);
  events().clear();
  try {
    KXModule::createModule<RecordedModule>(mBroker);
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(), "a module named 'Recorded' is already published");
  }
  EXPECT_EQ(events(), (Texts{"constructed, published", "destroyed"}));
  EXPECT_EQ(mBroker->getProxy("Recorded", 0)->getModule(), first);
  EXPECT_FALSE(first->isClosing());
}

TEST_F(Module, IsClosingAndUnpublishedOnceItExits) {
  auto const module = KXModule::createModule<RecordedModule>(mBroker);
  EXPECT_FALSE(module->isClosing());

  module->exit();

  EXPECT_TRUE(module->isClosing());
  EXPECT_FALSE(mBroker->isModulePresent("Recorded"));
}

TEST_F(Module, ExitsWithoutItsBroker) {
  boost::shared_ptr<KXModule> module;
  {
    auto const broker = KXBroker::createBroker("short-lived");
    module = boost::make_shared<KXModule>(broker, "Plain");
  }

  module->exit();

  EXPECT_TRUE(module->isClosing());
}

TEST_F(Module, BaseDoesNothingWhereNothingIsOverridden) {
  auto const module = boost::make_shared<KXModule>(mBroker, "Plain");

  module->init();
  module->stop(1);

  EXPECT_EQ(module->version(), "");
  EXPECT_EQ(module->httpGet(), "");
  EXPECT_FALSE(module->isClosing());
}

TEST_F(Module, ExecutesItsBoundMethods) {
  auto const module = KXModule::createModule<RecordedModule>(mBroker);
  KXValue result("untouched");

  module->execute("negate", KXValue::arrayOf(KXValue(5)), result);
  EXPECT_EQ(result, KXValue(-5));

  result = KXValue("untouched");
  EXPECT_THROW(module->execute("missing", KXValue::arrayOf(), result), KXError);
  EXPECT_THROW(module->execute("negate", KXValue::arrayOf(), result), KXError);
  EXPECT_EQ(result, KXValue("untouched"));
  try {
    module->execute("negate", KXValue(5), result);
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(),
              "expected an array of arguments for method 'negate', got int");
  }
}

TEST_F(Module, CycleSignalReachesWhoIsConnected) {
  auto const module = boost::make_shared<KXModule>(mBroker, "Cycling");
  int count = 0;
  boost::signals2::connection connection = module->cycleSignal().connect([&] { ++count; });

  module->cycleSignal()();
  module->cycleSignal()();
  connection.disconnect();
  module->cycleSignal()();

  EXPECT_EQ(count, 2);
}

TEST_F(Module, VirtualOperationsStandInTheirOrder) {
  // The destructor takes the first two places of the table.
  struct Slot {
    std::uintptr_t place;
    std::uintptr_t adjustment;
  };
  auto const placeOf = [](auto member) {
    Slot slot{};
    static_assert(sizeof member == sizeof slot);
    std::memcpy(&slot, &member, sizeof slot);
    return (slot.place - 1) / sizeof(void*);
  };

  EXPECT_EQ(placeOf(&KXModule::execute), 2U);
  EXPECT_EQ(placeOf(&KXModule::version), 3U);
  EXPECT_EQ(placeOf(&KXModule::exit), 4U);
  EXPECT_EQ(placeOf(&KXModule::httpGet), 5U);
  EXPECT_EQ(placeOf(&KXModule::init), 6U);
  EXPECT_EQ(placeOf(&KXModule::stop), 7U);
}

}  // namespace
}  // namespace KX
