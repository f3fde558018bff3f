// The module under test as it is shipped: its library, in a real broker, before a store of the
// test's own.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <binding/kx.hpp>
#include <host/rttools/kxmodulelibrary.hpp>
#include <tests/support/testhost.hpp>

TEST(Thermometer, RaisesAnEventAboveThirtyDegrees) {
  std::vector<std::string> calls;
  KX::testing::TestHost host;
  host.publishScript("KXMemory", [&calls](std::string const& method, KX::KXValue const& params) {
    calls.push_back(method + params.toString(1));
    return KX::KXValue();
  });
  KX::KXModuleLibrary(THERMOMETER).createModule(host.getBroker());
  calls.clear();

  host.call("Thermometer", "setCelsius", 30);
  host.call("Thermometer", "setCelsius", 30.5);

  std::vector<std::string> const expected = {R"(insertData["Room/Celsius",30.0])",
                                             R"(insertData["Room/Celsius",30.5])",
                                             R"(raiseEvent["Room/TooHot",30.5])"};
  EXPECT_EQ(calls, expected);
}
