// The threads that run a broker's parallel calls.
#pragma once

#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxtask.hpp>

namespace KX {

/// Runs each task at once on a thread of its own: an idle one if there is one, else a new one.
/// Threads stay until stop().
/// Threads: every operation may be called from any thread, those of the pool included.
/// A task has ended when it returned, before the pool releases its object; what it throws is
/// logged.
class KXTaskPool {
 public:
  KXTaskPool();
  /// Stops.
  ~KXTaskPool();
  KXTaskPool(KXTaskPool const&) = delete;
  KXTaskPool& operator=(KXTaskPool const&) = delete;

  /// KXError after stop(); boost::thread_resource_error, and nothing is queued, if the system
  /// grants no thread.
  void add(std::string const& key, boost::shared_ptr<KXTask> task);
  /// True from add() until the task has ended.
  bool isRunning(int taskId) const;
  /// False if the time-out passed first; 0 waits without limit. KXError if the task waits on
  /// itself.
  bool wait(int taskId, int timeoutMs);
  /// Takes no more tasks, and waits for those it has and their threads; a task that stops its own
  /// pool is left to end later. Does nothing the second time.
  void stop();

 private:
  // Shared with the threads, since a task may destroy its own pool.
  struct State;
  std::shared_ptr<State> const mState;
};

}  // namespace KX
