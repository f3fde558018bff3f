#include "host/kxcommon/kxtaskpool.hpp"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <unordered_set>
#include <utility>
#include <vector>

#include <boost/thread/thread.hpp>

#include <ka/runlogged.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

struct Job {
  std::string key;
  boost::shared_ptr<KXTask> task;
};

// The task that runs on this thread; 0 if there is none.
thread_local int tCurrentTaskId = 0;

[[noreturn]] void fail(char const* method, std::string const& text) {
  throw KXError("KXBroker", method, text, "kxcommon/kxbroker", 0);
}

// Nobody waits for what a parallel call throws, so the log is the only place left for it.
void runLogged(Job const& job) {
  tCurrentTaskId = job.task->getInfo().getID();
  auto const failure = [&] {
    return "parallel call '" + job.key + "' failed";
  };
  ka::log::runLogged("KXBroker", "addTask", failure, [&] { job.task->run(); });
  tCurrentTaskId = 0;
}

}  // namespace

struct KXTaskPool::State {
  mutable std::mutex mutex;
  std::condition_variable hasWork;
  std::condition_variable hasEnded;
  // All below are guarded by mutex.
  std::deque<Job> queue;
  std::unordered_set<int> running;  // the queued ones included
  std::vector<boost::thread> threads;
  std::size_t idleThreads = 0;  // those that run no task, the ones still starting included
  bool isStopped = false;

  bool isRunning(int taskId) const { return running.contains(taskId); }
  void serve();
  void runOne(std::unique_lock<std::mutex>& lock);
};

void KXTaskPool::State::serve() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    hasWork.wait(lock, [this] { return !queue.empty() || isStopped; });
    if (queue.empty()) return;
    runOne(lock);
  }
}

void KXTaskPool::State::runOne(std::unique_lock<std::mutex>& lock) {
  --idleThreads;
  Job job = std::move(queue.front());
  queue.pop_front();

  lock.unlock();
  runLogged(job);
  lock.lock();
  running.erase(job.task->getInfo().getID());
  lock.unlock();
  hasEnded.notify_all();
  // Only now: the task may hold the last reference to a module whose destructor waits for it.
  job.task.reset();

  lock.lock();
  ++idleThreads;
}

KXTaskPool::KXTaskPool() : mState(std::make_shared<State>()) {}

KXTaskPool::~KXTaskPool() {
  stop();
}

void KXTaskPool::add(std::string const& key, boost::shared_ptr<KXTask> task) {
  int const id = task->getInfo().getID();
  {
    std::lock_guard<std::mutex> const lock(mState->mutex);
    if (mState->isStopped) {
      fail("addTask", "cannot start parallel call '" + key + "', the broker is shut down");
    }
    // The thread first: if the system grants none, nothing has been queued.
    if (mState->queue.size() >= mState->idleThreads) {
      mState->threads.emplace_back([state = mState] { state->serve(); });
      ++mState->idleThreads;
    }
    mState->running.insert(id);
    mState->queue.push_back({key, std::move(task)});
  }
  mState->hasWork.notify_one();
}

bool KXTaskPool::isRunning(int taskId) const {
  std::lock_guard<std::mutex> const lock(mState->mutex);
  return mState->isRunning(taskId);
}

bool KXTaskPool::wait(int taskId, int timeoutMs) {
  if (taskId != 0 && taskId == tCurrentTaskId) {
    fail("wait", "parallel call " + std::to_string(taskId) + " waits on itself");
  }
  auto const hasEnded = [&] {
    return !mState->isRunning(taskId);
  };
  std::unique_lock<std::mutex> lock(mState->mutex);
  if (timeoutMs != 0) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    return mState->hasEnded.wait_until(lock, deadline, hasEnded);
  }
  mState->hasEnded.wait(lock, hasEnded);
  return true;
}

void KXTaskPool::stop() {
  std::vector<boost::thread> threads;
  {
    std::lock_guard<std::mutex> const lock(mState->mutex);
    mState->isStopped = true;
    threads.swap(mState->threads);
  }
  mState->hasWork.notify_all();
  for (boost::thread& thread : threads) {
    if (thread.get_id() == boost::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

}  // namespace KX
