// What befalls a connection to a NATS server.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxbusobservers.hpp>
#include <host/bus/kxnatsline.hpp>

struct __natsOptions;
struct __natsSubscription;

namespace KX {

/// Tells observers on a thread of its own: the library's callbacks come on one thread for all
/// connections of the process, which nobody may hold up. Makes a new connection where the library
/// has given one up.
/// Threads: one makes, starts and ends it; the rest is for any.
class KXNatsWatch {
 public:
  KXNatsWatch(std::string address, std::string user);
  ~KXNatsWatch();
  KXNatsWatch(KXNatsWatch const&) = delete;
  KXNatsWatch& operator=(KXNatsWatch const&) = delete;

  /// Has connections that are made with these options call the watch, as long as it lives.
  static void listen(std::shared_ptr<KXNatsWatch> const& watch, __natsOptions* options);
  /// `connect` gives a connection in place of one that was closed; null: there is none now.
  void start(KXNatsConnection const& connection, std::function<KXNatsConnection()> connect);
  /// What the library says from now on is our own doing.
  void close();
  /// After close().
  void join();

  KXBusObservers& observers() { return mObservers; }
  // The library itself answers these only when it is not about to connect, which takes a second
  // where the server hangs.
  bool isConnected() const { return mIsConnected; }
  std::size_t maxPayload() const { return mMaxPayload; }

  // For the library's thread:
  void lost();
  void back();
  void failed(__natsSubscription* subscription, int status, std::string const& text);
  /// The library tries no more: twice the same refusal while it came back.
  void closed();

 private:
  using Clock = std::chrono::steady_clock;

  void xPut(KXBusEvent event);
  void xLogTrouble(std::string const& text);
  void xUse(KXNatsConnection const& connection);
  void xLearnMaxPayload();
  void xRun();
  void xConnectAnew(std::unique_lock<std::mutex>& lock);
  void xTell(KXBusEvent const& event, Clock::time_point time);
  void xTellForbidden(KXBusEvent const& event);

  std::string const mAddress;
  std::string const mUser;
  KXBusObservers mObservers;
  std::atomic<bool> mIsConnected{false};
  std::atomic<std::size_t> mMaxPayload{0};
  std::function<KXNatsConnection()> mConnect;
  std::thread mThread;
  // Of mThread, once it runs:
  KXNatsConnection mConnection;
  bool mIsLost = false;
  Clock::time_point mLostAt{};
  std::set<std::string> mForbidden{};  ///< subjects told of since it was lost last

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::pair<KXBusEvent, Clock::time_point>> mEvents;  // guarded by mMutex
  bool mIsClosed = false;                                        // guarded by mMutex
  bool mIsClosing = false;                                       // guarded by mMutex
  std::string mLastTrouble{};                                    // guarded by mMutex
};

}  // namespace KX
