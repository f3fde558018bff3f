#include <kxcommon/kxmodulecore.hpp>

#include <algorithm>
#include <set>
#include <utility>

#include <ka/runlogged.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodulescope.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

[[noreturn]] void fail(char const* method, std::string const& text,
                       KXError::Kind kind = KXError::Kind::Failed) {
  throw KXError("KXModuleCore", method, text, "kxcommon/kxmodulecore", 0, kind);
}

bool hasTypes(KXMethodInfo const& info, std::vector<std::string> const& types) {
  return std::equal(info.parameters.begin(), info.parameters.end(), types.begin(), types.end(),
                    [](KXParameterInfo const& parameter, std::string const& type) {
                      return parameter.type == type;
                    });
}

}  // namespace

KXModuleCore::KXModuleCore(boost::shared_ptr<KXBroker> const& broker, std::string name)
    : mName(std::move(name)), mBroker(broker) {}

KXModuleCore::~KXModuleCore() = default;

boost::shared_ptr<KXBroker> KXModuleCore::getParentBroker() const {
  boost::shared_ptr<KXBroker> broker = mBroker.lock();
  if (!broker) fail("getParentBroker", "the broker of module '" + mName + "' is gone");
  return broker;
}

void KXModuleCore::initModule() {
  getParentBroker()->addModule(shared_from_this());
}

KXMethodInfo const* KXModuleCore::findMethod(std::string const& name) const noexcept {
  auto const found = mMethodsByName.find(name);
  if (found == mMethodsByName.end() || found->second.size() != 1) return nullptr;
  return &mMethods[found->second.front()];
}

KXMethodInfo const* KXModuleCore::findMethod(
    std::string const& name, std::vector<std::string> const& parameterTypes) const noexcept {
  auto const found = mMethodsByName.find(name);
  if (found == mMethodsByName.end()) return nullptr;
  for (std::size_t const index : found->second) {
    if (hasTypes(mMethods[index], parameterTypes)) return &mMethods[index];
  }
  return nullptr;
}

KXMethodInfo const& KXModuleCore::getMethod(std::string const& name, int argumentCount) const {
  auto const found = mMethodsByName.find(name);
  if (found == mMethodsByName.end()) throwUnknownMethod(name);
  std::set<std::size_t> counts;
  for (std::size_t const index : found->second) {
    std::size_t const count = mMethods[index].parameters.size();
    if (std::cmp_equal(count, argumentCount)) return mMethods[index];
    counts.insert(count);
  }
  std::string expected;
  for (std::size_t const count : counts) {
    expected += (expected.empty() ? "" : " or ") + std::to_string(count);
  }
  fail("getMethod", "method '" + name + "' of module '" + mName + "' takes " + expected +
                        (expected == "1" ? " argument, " : " arguments, ") +
                        std::to_string(argumentCount) + " given");
}

void KXModuleCore::throwUnknownMethod(std::string const& name) const {
  std::string published;
  for (auto method = mMethods.begin(); method != mMethods.end(); ++method) {
    bool const isRepeated = std::any_of(mMethods.begin(), method, [&](KXMethodInfo const& earlier) {
      return earlier.name == method->name;
    });
    if (!isRepeated) published += (published.empty() ? "'" : ", '") + method->name + "'";
  }
  fail("getMethod",
       "unknown method '" + name + "' of module '" + mName +
           "', published: " + (published.empty() ? "none" : published),
       KXError::Kind::NotFound);
}

void KXModuleCore::setModuleDescription(std::string description) {
  mDescription = std::move(description);
}

void KXModuleCore::functionName(std::string const& name, std::string const& moduleName,
                                std::string const& description, int /*flags*/) {
  mCurrentMethod = KXMethodInfo();
  mCurrentMethod.name = name;
  mCurrentMethod.moduleName = moduleName;
  mCurrentMethod.description = description;
  mCurrentMethod.result.type = getTypeString(1);
  mHasCurrentMethod = true;
}

void KXModuleCore::addParam(std::string const& name, std::string const& description) {
  KXParameterInfo& added = getCurrentMethodDescription().parameters.emplace_back();
  added.name = name;
  added.description = description;
}

void KXModuleCore::setReturn(std::string const& name, std::string const& description) {
  KXParameterInfo& result = getCurrentMethodDescription().result;
  result.name = name;
  result.description = description;
}

KXMethodInfo& KXModuleCore::getCurrentMethodDescription() {
  if (!mHasCurrentMethod) {
    fail("getCurrentMethodDescription",
         "module '" + mName + "' has no open method description, call functionName() first");
  }
  return mCurrentMethod;
}

void KXModuleCore::bindMethod(boost::shared_ptr<KXFunctorBase> functor) {
  getCurrentMethodDescription().functor = std::move(functor);
  mMethodsByName[mCurrentMethod.name].push_back(mMethods.size());
  mMethods.push_back(std::move(mCurrentMethod));
  mHasCurrentMethod = false;
}

void KXModuleCore::onClosing(std::function<void()> hook) {
  mClosingHooks.push_back(std::move(hook));
}

void KXModuleCore::markClosing() noexcept {
  if (mIsClosing.exchange(true, std::memory_order_acq_rel)) return;
  for (std::function<void()> const& hook : mClosingHooks) {
    // One that fails must not keep the next sleeper asleep.
    auto const failure = [this] {
      return "a closing hook of module '" + mName + "' failed";
    };
    ka::log::runLogged("KXModuleCore", "markClosing", failure, hook);
  }
}

void KXModuleEnd::operator()(KXModuleCore* module) const noexcept {
  if (module == nullptr) return;
  module->markClosing();
  if (KXModuleScope::takeOver(*module)) return;
  module->getParallelCalls()->close();
  delete module;
}

}  // namespace KX
