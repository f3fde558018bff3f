#include <kx/session.hpp>

#include <pthread.h>

#include <csignal>
#include <exception>
#include <optional>

#include <gtest/gtest.h>

namespace KX::tool {
namespace {

// The signals that the tool takes, given back to the other tests.
class Session : public ::testing::Test {
 protected:
  Session() {
    pthread_sigmask(SIG_SETMASK, nullptr, &mFormerMask);
    mStop.emplace();
  }
  ~Session() override { pthread_sigmask(SIG_SETMASK, &mFormerMask, nullptr); }

  sigset_t mFormerMask{};
  std::optional<KXStop> mStop;
};

TEST_F(Session, KeepsTheSensorsAheadOfAShorterPeriodOnly) {
  KXSession const session({}, *mStop);
  auto const sensorsMs = [&] {
    return session.call("KXHostSensors", "getPeriodMs");
  };

  session.keepSensorsAhead(500);
  EXPECT_EQ(KXValue(100), sensorsMs());
  session.keepSensorsAhead(100);
  EXPECT_EQ(KXValue(100), sensorsMs());
  session.keepSensorsAhead(30);
  EXPECT_EQ(KXValue(30), sensorsMs());
}

TEST_F(Session, NamesAllThatTheStoreHasNothingFor) {
  KXSession const session({}, *mStop);

  EXPECT_EQ("no key matches 'Host/Cpu/Usge' (nearest is 'Host/Cpu/Usage'), 'No/*', '\\x1b'",
            session.noMatchText({"Host/Cpu/Usge", "No/*", "\x1b"}));
}

TEST_F(Session, HasAHardwareCycleOnlyOnRequest) {
  EXPECT_THROW(KXSession({}, *mStop).vsm(), std::exception);
  EXPECT_NE(nullptr, KXSession({.withVsm = true}, *mStop).vsm());
}

}  // namespace
}  // namespace KX::tool
