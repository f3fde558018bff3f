#include <tests/support/fakememory.hpp>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

#include <binding/kxpublish.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {
constexpr std::chrono::seconds kPatience{30};
}

FakeMemory::FakeMemory(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "KXMemory") {
  setModuleDescription("A store driven by hand.");
  publish(*this, {"getData"}, &FakeMemory::getData);
  publish(*this, {"getListData"}, &FakeMemory::getListData);
  publish(*this, {"getType"}, &FakeMemory::getType);
  publish(*this, {"subscribeToEvent"}, &FakeMemory::subscribeToEvent);
  publish(*this, {"subscribeToMicroEvent"}, &FakeMemory::subscribeToMicroEvent);
  publish(*this, {"unsubscribeToEvent"}, &FakeMemory::unsubscribeToEvent);
  publish(*this, {"unsubscribeToMicroEvent"}, &FakeMemory::unsubscribeToMicroEvent);
}

FakeMemory::~FakeMemory() = default;

void FakeMemory::set(std::string const& name, std::string const& type, KXValue const& value) {
  std::lock_guard const lock(mMutex);
  mKeys[name] = {type, value};
}

void FakeMemory::setValue(std::string const& name, KXValue const& value) {
  std::lock_guard const lock(mMutex);
  mKeys[name].value = value;
}

void FakeMemory::forget(std::string const& name) {
  std::lock_guard const lock(mMutex);
  mKeys.erase(name);
}

void FakeMemory::setHook(std::string const& method, Hook hook) {
  std::lock_guard const lock(mMutex);
  mHooks[method] = std::move(hook);
}

FakeMemory::Hook FakeMemory::throwing(std::string const& text) {
  return [text](Call const& call, KXValue&) {
    throw KXError("FakeMemory", call.method, text, "", 0);
  };
}

void FakeMemory::block(std::string const& method) {
  std::lock_guard const lock(mMutex);
  mBlocked[method] = true;
}

void FakeMemory::release(std::string const& method) {
  std::lock_guard const lock(mMutex);
  mBlocked[method] = false;
  mChanged.notify_all();
}

bool FakeMemory::waitUntilParked(int count) {
  std::unique_lock lock(mMutex);
  return mChanged.wait_for(lock, kPatience, [&] { return mParkedCount >= count; });
}

bool FakeMemory::waitForCalls(std::string const& method, int count) {
  std::unique_lock lock(mMutex);
  return mChanged.wait_for(lock, kPatience, [&] {
    return std::count_if(mCalls.begin(), mCalls.end(),
                         [&](Call const& call) { return call.method == method; }) >= count;
  });
}

std::vector<FakeMemory::Call> FakeMemory::getCalls() const {
  std::lock_guard const lock(mMutex);
  return mCalls;
}

std::vector<FakeMemory::Call> FakeMemory::getCalls(std::string const& method) const {
  std::lock_guard const lock(mMutex);
  std::vector<Call> found;
  std::copy_if(mCalls.begin(), mCalls.end(), std::back_inserter(found),
               [&](Call const& call) { return call.method == method; });
  return found;
}

void FakeMemory::clearCalls() {
  std::lock_guard const lock(mMutex);
  mCalls.clear();
}

KXValue FakeMemory::xEnter(Call const& call) {
  Hook hook;
  {
    std::unique_lock lock(mMutex);
    mCalls.push_back(call);
    mChanged.notify_all();
    if (mBlocked[call.method]) {
      ++mParkedCount;
      mChanged.wait(lock, [&] { return !mBlocked[call.method]; });
      --mParkedCount;
    }
    hook = mHooks[call.method];
  }
  KXValue result;
  if (hook) hook(call, result);
  return result;
}

FakeMemory::Key FakeMemory::xFind(std::string const& method, std::string const& name) const {
  std::lock_guard const lock(mMutex);
  auto const place = mKeys.find(name);
  if (place == mKeys.end()) {
    throw KXError("KXMemory", method, "unknown key '" + name + "'", "", 0);
  }
  return place->second;
}

KXValue FakeMemory::getData(std::string const& name) {
  KXValue const answer = xEnter({"getData", {name}});
  return answer.isValid() ? answer : xFind("getData", name).value;
}

KXValue FakeMemory::getListData(KXValue const& names) {
  KXValue const answer = xEnter({"getListData", {names}});
  if (answer.isValid()) return answer;
  std::vector<std::string> texts;
  names.ToStringArray(texts, false);
  std::vector<KXValue> values;
  std::lock_guard const lock(mMutex);
  for (std::string const& text : texts) {
    auto const place = mKeys.find(text);
    values.push_back(place == mKeys.end() ? KXValue() : place->second.value);
  }
  return KXValue(std::move(values));
}

std::string FakeMemory::getType(std::string const& name) {
  KXValue const answer = xEnter({"getType", {name}});
  if (answer.isValid()) return static_cast<std::string const&>(answer);
  return xFind("getType", name).type;
}

void FakeMemory::subscribeToEvent(std::string const& name, std::string const& callbackModule,
                                  std::string const& callbackMethod) {
  xEnter({"subscribeToEvent", {name, callbackModule, callbackMethod}});
}

void FakeMemory::subscribeToMicroEvent(std::string const& name, std::string const& callbackModule,
                                       std::string const& callbackMessage,
                                       std::string const& callbackMethod) {
  xEnter({"subscribeToMicroEvent", {name, callbackModule, callbackMessage, callbackMethod}});
}

void FakeMemory::unsubscribeToEvent(std::string const& name, std::string const& callbackModule) {
  xEnter({"unsubscribeToEvent", {name, callbackModule}});
}

void FakeMemory::unsubscribeToMicroEvent(std::string const& name,
                                         std::string const& callbackModule) {
  xEnter({"unsubscribeToMicroEvent", {name, callbackModule}});
}

}  // namespace KX
