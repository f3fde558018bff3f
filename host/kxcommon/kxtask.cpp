#include <kxcommon/kxtask.hpp>

#include <atomic>
#include <cstdint>
#include <limits>
#include <utility>

namespace KX {
namespace {

// After the last positive number the ids start again; by then the first ones are long over.
int nextTaskId() {
  static std::atomic<std::uint32_t> count{0};
  constexpr std::uint32_t kLargest = std::numeric_limits<std::int32_t>::max();
  return static_cast<int>(count.fetch_add(1, std::memory_order_relaxed) % kLargest) + 1;
}

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
  if (mCore.expired()) return;
  KXValue result;
  mFunctor->call(KXValue::arrayOf(), result);
}

}  // namespace detail
}  // namespace KX
