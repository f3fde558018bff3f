#include <kxcommon/kxtask.hpp>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

namespace KX {
namespace {

// After the last positive number the ids start again; by then the first ones are long over.
int nextTaskId() {
  static std::atomic<std::uint32_t> count{0};
  constexpr std::uint32_t kLargest = std::numeric_limits<std::int32_t>::max();
  return static_cast<int>(count.fetch_add(1, std::memory_order_relaxed) % kLargest) + 1;
}

// The guard that the parallel call on this thread has entered; null if there is none.
thread_local KXCallbackGuard const* tEntered = nullptr;

// Keeps a module's destructor waiting for its lifetime.
class InParallelCall {
 public:
  explicit InParallelCall(std::shared_ptr<KXCallbackGuard> guard) : mGuard(std::move(guard)) {
    mHasEntered = mGuard->enter();
    if (mHasEntered) tEntered = mGuard.get();
  }
  ~InParallelCall() {
    if (!mHasEntered) return;
    tEntered = nullptr;
    mGuard->leave();
  }
  InParallelCall(InParallelCall const&) = delete;
  InParallelCall& operator=(InParallelCall const&) = delete;

  bool hasEntered() const noexcept { return mHasEntered; }

 private:
  std::shared_ptr<KXCallbackGuard> const mGuard;
  bool mHasEntered;
};

}  // namespace

KXTaskInfo::KXTaskInfo(std::string moduleName, std::string method)
    : mId(nextTaskId()), mModuleName(std::move(moduleName)), mMethod(std::move(method)) {}

std::string KXTaskInfo::toString() const {
  return mModuleName + "." + mMethod + "#" + std::to_string(mId);
}

KXTask::~KXTask() = default;

namespace detail {

_pcall0::_pcall0(boost::shared_ptr<KXFunctorBase> functor, KXTaskInfo info,
                 boost::shared_ptr<KXModuleCore> const& core)
    : KXTask(std::move(info)), mFunctor(std::move(functor)), mCore(core) {}

void _pcall0::run() {
  boost::shared_ptr<KXModuleCore> core = mCore.lock();
  if (!core) return;
  InParallelCall const call(core->getParallelCalls());
  // If this was the last reference, the module dies here and the call is not made.
  core.reset();
  if (!call.hasEntered() || mCore.expired()) return;
  KXValue result;
  mFunctor->call(KXValue::arrayOf(), result);
}

bool isInParallelCall(KXCallbackGuard const& guard) noexcept {
  return tEntered == &guard;
}

}  // namespace detail
}  // namespace KX
