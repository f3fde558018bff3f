#include <kxcommon/kxtask.hpp>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

#include <kxcommon/kxmodulecore.hpp>
#include <kxcommon/kxmodulescope.hpp>

namespace KX {
namespace {

// After the last positive number the ids start again; by then the first ones are long over.
int nextTaskId() {
  static std::atomic<std::uint32_t> count{0};
  constexpr std::uint32_t kLargest = std::numeric_limits<std::int32_t>::max();
  return static_cast<int>(count.fetch_add(1, std::memory_order_relaxed) % kLargest) + 1;
}

// Keeps a module's end waiting for its lifetime, and its own thread's from coming under its feet.
class InParallelCall {
 public:
  explicit InParallelCall(KXModuleCore& core)
      : mCore(core), mScope(core), mGuard(core.getParallelCalls()), mHasEntered(mGuard->enter()) {}
  ~InParallelCall() {
    if (mHasEntered && mGuard->leave()) KXModuleScope::takeOver(mCore);
  }
  InParallelCall(InParallelCall const&) = delete;
  InParallelCall& operator=(InParallelCall const&) = delete;

  bool hasEntered() const noexcept { return mHasEntered; }

 private:
  KXModuleCore& mCore;
  KXModuleScope const mScope;  // ends last: the module may die in it
  std::shared_ptr<KXCallbackGuard> const mGuard;
  bool const mHasEntered;
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
  InParallelCall const call(*core);
  // If this was the last reference, the module dies at the end of `call`, and the call is not made.
  core.reset();
  if (!call.hasEntered() || mCore.expired()) return;
  KXValue result;
  mFunctor->call(KXValue::arrayOf(), result);
}

}  // namespace detail
}  // namespace KX
