// The examples of the documents do what the documents say.

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

TEST(Thermometer, PublishesWritesAndRaises) {
  KXHost host({.name = "example"});
  host.loadModule(KX_LIB_DIR "/libthermometer.so");
  auto const thermometer = host.getBroker()->getProxy("Thermometer", 0);
  auto const store = host.getBroker()->getProxy("KXMemory", 0);
  EXPECT_EQ(store->call<std::string>("getType", std::string("Room/TooHot")), "Event");

  thermometer->call<void>("setCelsius", 31.5F);

  EXPECT_EQ(thermometer->call<float>("getCelsius"), 31.5F);
  EXPECT_EQ(store->call<KXValue>("getData", std::string("Room/Celsius")), KXValue(31.5));
  EXPECT_EQ(store->call<KXValue>("getData", std::string("Room/TooHot")), KXValue(31.5));
  EXPECT_THROW(thermometer->genericCall("setCelsius", KXValue::arrayOf("hot")), KXError);
}

TEST(Client, WatchesTwoKeysForASecond) {
  std::FILE* const output = popen(KX_BIN_DIR "/client", "r");
  ASSERT_NE(output, nullptr);
  std::string text;
  for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) text += static_cast<char>(c);

  EXPECT_EQ(pclose(output), 0);
  EXPECT_NE(text.find("Arm/Angle: "), std::string::npos) << text;
  EXPECT_NE(text.find(",0.25]\n"), std::string::npos) << text;
  // The value that the event had when it was added, and the raise.
  EXPECT_NE(text.find("Arm/Touched: 2 samples"), std::string::npos) << text;
  EXPECT_NE(text.find(",\"left\"]\n"), std::string::npos) << text;
}

}  // namespace
}  // namespace KX
