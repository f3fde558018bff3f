// A way between a client and a server that a test can cut. Any thread may use it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace KX::testing {

/// Listens on a free port of 127.0.0.1 and forwards what comes to another port and back.
class CutProxy {
 public:
  explicit CutProxy(int targetPort);
  ~CutProxy();
  CutProxy(CutProxy const&) = delete;
  CutProxy& operator=(CutProxy const&) = delete;

  /// Each takes effect before it returns.
  void cut();     ///< closes the connections; those that come are closed at once
  void hang();    ///< forwards nothing any more, connections stay open
  void resume();  ///< forwards, also what came while it hung

  int port() const { return mPort; }
  std::string url() const { return "nats://127.0.0.1:" + std::to_string(mPort); }

 private:
  enum class Mode { Pass, Cut, Hang, End };
  struct Way {
    int from;
    int to;
    std::string waiting{};
  };
  struct Pair {
    Way up;
    Way down;
  };

  void xSet(Mode mode);
  void xRun();
  void xAccept(Mode mode);
  bool xForward(Way& way, bool canRead, bool canWrite);

  int const mTargetPort;
  int mListener = -1;
  int mWake = -1;
  int mPort = 0;
  std::list<Pair> mPairs{};  // of the proxy's thread
  std::mutex mMutex;
  std::condition_variable mChanged;
  Mode mWanted = Mode::Pass;   // guarded by mMutex
  Mode mReached = Mode::Pass;  // guarded by mMutex
  std::thread mThread;
};

}  // namespace KX::testing
