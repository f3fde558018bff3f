// Messages as both buses hand them over.
#include <host/bus/kxbus.hpp>

#include <gtest/gtest.h>

namespace KX {
namespace {

TEST(BusMessage, FindsTheFirstHeaderOfAName) {
  KXBusMessage const message{
      .subject = "a", .headers = {{"Kx-Part", "0.2"}, {"Kx-Part", "1.2"}}, .payload = ""};

  EXPECT_EQ(message.header("Kx-Part"), "0.2");
  EXPECT_EQ(message.header("kx-part"), "");
}

}  // namespace
}  // namespace KX
