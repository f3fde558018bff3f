#include <host/bus/kxmethodstatistics.hpp>

#include <cstddef>

namespace KX {
namespace {

constexpr std::size_t kMaxMethods = 256;

// No such module, no such method, or arguments that cannot be read, which is found before it is
// known whether there is such a method. A method's own calls may fail so, too.
bool mayBeOfNobody(KXError const& error) {
  std::string const& module = error.getModuleName();
  return module == "KXBus" || (error.getKind() == KXError::Kind::NotFound &&
                               (module == "KXModuleCore" || module == "KXProxy"));
}

}  // namespace

void KXStatisticsTable::count(std::string const& module, std::string const& method,
                              std::chrono::steady_clock::duration duration, KXError const* error) {
  if (method.starts_with('@')) return;
  bool const mayBeMadeUp = error != nullptr && mayBeOfNobody(*error);
  std::lock_guard const lock(mMutex);
  auto ofModule = mModules.find(module);
  if (ofModule == mModules.end()) {
    if (mayBeMadeUp) return;
    ofModule = mModules.try_emplace(module).first;
  }
  auto& methods = ofModule->second;
  auto found = methods.find(method);
  if (found == methods.end()) {
    if (mayBeMadeUp || methods.size() >= kMaxMethods) return;
    found = methods.emplace(method, KXMethodStatistics{.method = method}).first;
  }
  KXMethodStatistics& statistics = found->second;
  ++statistics.requests;
  statistics.processingNs += static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
  if (error == nullptr) return;
  ++statistics.errors;
  statistics.lastError = error->what();
}

std::vector<KXMethodStatistics> KXStatisticsTable::of(std::string const& module) const {
  std::lock_guard const lock(mMutex);
  std::vector<KXMethodStatistics> all;
  auto const found = mModules.find(module);
  if (found == mModules.end()) return all;
  for (auto const& [method, statistics] : found->second) all.push_back(statistics);
  return all;
}

}  // namespace KX
