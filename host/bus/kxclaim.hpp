// A module's name meant for everybody on a robot: one process has it at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxrareline.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxerror/kxapi.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

/// A name while this object lives, from acquire() on, until somebody else has taken it over: that
/// happens where this process, or its connection, did not answer for a second. Nobody decides about
/// names but the processes that want them, so each one that has one answers who asks.
///
/// On the subject of the claim each says `[state, instance, since, pid, host]`, state being
/// "claims" or "holds"; whoever has the name, or a better claim to it, answers with the same. Of
/// two that claim at once the smaller instance wins. Of two that hold the name, as after a cut,
/// the later one keeps it, by their own clocks.
///
/// Ownership: borrows the bus, which outlives it; its end sets the name free.
/// Threads: one acquires and ends it; isHeld() from any.
class KX_API KXClaim {
 public:
  /// Called once if the name is lost, on a thread of the bus, after a line was logged. It may use
  /// the bus, but not destroy the claim.
  using WithdrawnHandler = std::function<void()>;

  /// `instance` is unique to this process and its end of the robot. Nothing is sent yet.
  KXClaim(KXBus& bus, std::string robot, std::string module, std::string instance,
          WithdrawnHandler onWithdrawn);
  ~KXClaim();
  KXClaim(KXClaim const&) = delete;
  KXClaim& operator=(KXClaim const&) = delete;

  /// Returns when the name is this process's, within half a second where nobody has it, and 2 s
  /// where whoever has it does not answer. KXError: Failed if somebody has it, and says who;
  /// Refused by the server; Disconnected.
  void acquire();
  /// Several in the time of one. What was acquired before an error stays so.
  static void acquireAll(std::span<std::unique_ptr<KXClaim> const> claims);

  std::string const& module() const noexcept { return mModule; }
  bool isHeld() const;

 private:
  enum class State { Asking, Claiming, Held, Lost };
  /// What somebody says of himself on the subject.
  struct Claimant {
    bool isHolder = false;
    std::string instance;
    std::string since;
    int pid = 0;
    std::string host;
  };

  static void xAcquire(std::vector<KXClaim*> const& claims);
  void xOpen();
  void xListen();
  void xAwaitRivals();
  bool xWaitUntil(std::chrono::steady_clock::time_point time);
  void xThrowIfLost() const;  // mMutex is held
  void xSay(std::string const& subject, std::string const& reply) const;
  void xSayIfConnected(std::string const& subject, std::string const& reply) const noexcept;
  void xHear(KXBusMessage const& message);
  void xJudge(Claimant const& other, KXBusMessage const& message);
  void xOnEvent(KXBusEvent const& event);
  void xLose(KXError const& error);  // mMutex is held
  void xWithdraw();
  KXError xError(std::string const& text, KXError::Kind kind) const;

  KXBus& mBus;
  std::string const mRobot;
  std::string const mModule;
  std::string const mInstance;
  std::string const mSubject;
  std::string const mInbox;
  WithdrawnHandler const mOnWithdrawn;

  std::chrono::steady_clock::time_point mAsked{};  ///< those that claim at the same time

  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  State mState = State::Asking;   // guarded by mMutex
  bool mIsNobodyThere = false;    // guarded by mMutex
  std::optional<KXError> mError;  // guarded by mMutex; why it is lost
  std::string mSince;             // guarded by mMutex
  KXRareLine mMalformed{"KXClaim", "hear"};

  // Last: their handlers use everything above.
  std::unique_ptr<KXBusSubscription> mEvents;
  std::unique_ptr<KXBusSubscription> mAnswers;
  std::unique_ptr<KXBusSubscription> mQuestions;
};

}  // namespace KX
