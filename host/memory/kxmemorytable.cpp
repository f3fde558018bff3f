#include <host/memory/kxmemorytable.hpp>

#include <algorithm>
#include <utility>

#include <kxerror/kxerror.hpp>

#include <host/memory/kxglob.hpp>

namespace KX {

namespace {

KXValue const kNoValue;

[[noreturn]] void fail(char const* method, std::string const& text) {
  throw KXError("KXMemory", method, text, "memory/kxmemory", 0);
}

[[noreturn]] void failUnknown(char const* method, std::string const& name) {
  throw KXError("KXMemory", method, "unknown key '" + name + "'", "memory/kxmemory", 0,
                KXError::Kind::NotFound);
}

char const* nameOf(KXKeyType type) {
  switch (type) {
    case KXKeyType::Data:
      return "Data";
    case KXKeyType::Event:
      return "Event";
    case KXKeyType::MicroEvent:
      return "MicroEvent";
    case KXKeyType::None:
      break;
  }
  return "Unknown data";
}

void checkNames(KXValue const& names, char const* method) {
  if (names.getType() != KXValue::TypeArray) {
    fail(method, "expected the names as an array, got " + KXValue::TypeToString(names.getType()));
  }
  KXValue const* const elements = names.arrayData();
  for (int i = 0; i < names.getSize(); ++i) {
    if (elements[i].getType() != KXValue::TypeString) {
      fail(method, "expected name " + std::to_string(i) + " to be a string, got " +
                       KXValue::TypeToString(elements[i].getType()));
    }
  }
}

bool isCurrent(KXSubscription const& subscription) {
  return !subscription.isGone.load(std::memory_order_relaxed);
}

bool isOf(std::string const& module, KXSubscription const& subscription) {
  return subscription.queue->getModuleName() == module;
}

// A copy of the list without the subscription of `module` and without those that are gone.
KXSubscriptionList copyWithout(KXSubscriptionList const* list, std::string const& module) {
  KXSubscriptionList copy;
  if (list == nullptr) return copy;
  for (auto const& subscription : *list) {
    if (!isOf(module, *subscription) && isCurrent(*subscription)) copy.push_back(subscription);
  }
  return copy;
}

bool isSubscribed(KXSubscriptionList const* list, std::string const& module) {
  return list != nullptr && std::any_of(list->begin(), list->end(), [&](auto const& one) {
           return isOf(module, *one) && isCurrent(*one);
         });
}

std::shared_ptr<KXSubscriptionList const> share(KXSubscriptionList list) {
  if (list.empty()) return {};
  return std::make_shared<KXSubscriptionList const>(std::move(list));
}

}  // namespace

KXMemorySlot& KXMemoryTable::slotToWrite(std::string const& name, KXKeyType type,
                                         char const* method) {
  KXMemorySlot& slot = xFindOrMake(name)->second;
  if (slot.type == type) return slot;
  if (slot.type != KXKeyType::None) checkType(name, type, method);
  if (std::exchange(slot.isReserved, false)) --mReservedCount;
  slot.type = type;
  return slot;
}

void KXMemoryTable::checkType(std::string const& name, KXKeyType type, char const* method) const {
  auto const place = mSlots.find(name);
  if (place == mSlots.end()) return;
  KXKeyType const actual = place->second.type;
  if (actual == KXKeyType::None || actual == type) return;
  fail(method, "expected key '" + name + "' to be of type " + nameOf(type) + ", it is of type " +
                   nameOf(actual));
}

KXMemorySlot const& KXMemoryTable::slotToRead(std::string const& name, char const* method) const {
  auto const place = mSlots.find(name);
  if (place == mSlots.end() || place->second.type == KXKeyType::None) failUnknown(method, name);
  return place->second;
}

std::string KXMemoryTable::typeName(std::string const& name, char const* method) const {
  auto const place = mSlots.find(name);
  bool const isKnown =
      place != mSlots.end() && (place->second.type != KXKeyType::None || place->second.isReserved);
  if (!isKnown) failUnknown(method, name);
  return nameOf(place->second.type);
}

void KXMemoryTable::remove(std::string const& name, KXValue& former, char const* method) {
  auto const place = mSlots.find(name);
  if (place == mSlots.end() || place->second.type == KXKeyType::None) failUnknown(method, name);
  KXMemorySlot& slot = place->second;
  slot.type = KXKeyType::None;
  former = std::move(*slot.value);
  xForgetBatches(slot);
  xEraseIfUnused(place);
}

std::vector<std::string> KXMemoryTable::keys(std::string const& pattern) const {
  std::vector<std::string> names;
  for (auto const& [name, slot] : mSlots) {
    if (slot.type == KXKeyType::None) continue;
    if (pattern.empty() || matchesGlob(pattern, name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

KXValue KXMemoryTable::read(KXValue const& names, char const* method) {
  auto const known = std::find_if(mBatches.begin(), mBatches.end(), [&](Batch const& batch) {
    return batch.names.sharesBlockWith(names) && batch.version == mVersion;
  });
  Batch const& batch = known != mBatches.end() ? *known : xResolve(names, method);
  if (known != mBatches.end()) known->lastUse = ++mUseCount;

  KXValue const* const* const values = batch.values.data();
  return KXValue::arrayFrom(
      batch.values.size(),
      [values](std::size_t i) noexcept -> KXValue const& { return *values[i]; });
}

KXMemoryTable::Batch const& KXMemoryTable::xResolve(KXValue const& names, char const* method) {
  checkNames(names, method);
  Batch& batch =
      *std::min_element(mBatches.begin(), mBatches.end(),
                        [](auto const& a, auto const& b) { return a.lastUse < b.lastUse; });
  batch.names = KXValue();
  batch.values.clear();
  batch.values.reserve(static_cast<std::size_t>(names.getSize()));
  KXValue const* const elements = names.arrayData();
  bool isComplete = true;
  for (int i = 0; i < names.getSize(); ++i) {
    KXMemorySlot* const slot = xReserve(static_cast<std::string const&>(elements[i]));
    if (slot != nullptr) slot->isInBatch = true;
    isComplete = isComplete && slot != nullptr;
    batch.values.push_back(slot != nullptr ? slot->value : &kNoValue);
  }
  // A list with names that got no slot is not remembered: they may be written at any time.
  if (isComplete) batch.names = names;
  batch.version = mVersion;
  batch.lastUse = isComplete ? ++mUseCount : 0;
  return batch;
}

// The name's slot, made and reserved if nobody wrote it; null if it or no more can be reserved.
KXMemorySlot* KXMemoryTable::xReserve(std::string const& name) {
  auto place = mSlots.find(name);
  bool const isReserved =
      place != mSlots.end() && (place->second.type != KXKeyType::None || place->second.isReserved);
  if (isReserved) return &place->second;
  if (mReservedCount == kMaxReserved || name.size() > kMaxReservedName) return nullptr;
  if (place == mSlots.end()) place = xFindOrMake(name);
  place->second.isReserved = true;
  ++mReservedCount;
  return &place->second;
}

KXMemoryTable::Slots::iterator KXMemoryTable::xFindOrMake(std::string const& name) {
  // The cell first, so that no slot is ever without one.
  if (mFreeCells.empty()) mFreeCells.push_back(&mCells.emplace_back());
  auto const [place, isNew] = mSlots.try_emplace(name);
  if (!isNew) return place;
  place->second.value = mFreeCells.back();
  mFreeCells.pop_back();
  return place;
}

void KXMemoryTable::xForgetBatches(KXMemorySlot& slot) {
  if (std::exchange(slot.isInBatch, false)) ++mVersion;
}

void KXMemoryTable::xEraseIfUnused(Slots::iterator place) {
  KXMemorySlot& slot = place->second;
  if (slot.type != KXKeyType::None || slot.isReserved) return;
  if (slot.eventSubscribers || slot.microEventSubscribers) return;
  mFreeCells.push_back(slot.value);
  mSlots.erase(place);
}

void KXMemoryTable::subscribe(std::string const& name, KXKeyType kind,
                              std::shared_ptr<KXSubscription> subscription, char const* method) {
  checkType(name, kind, method);
  auto& list = xFindOrMake(name)->second.subscribers(kind);
  KXSubscriptionList replacement = copyWithout(list.get(), subscription->queue->getModuleName());
  replacement.push_back(std::move(subscription));
  list = share(std::move(replacement));
}

void KXMemoryTable::unsubscribe(std::string const& name, KXKeyType kind, std::string const& module,
                                char const* method) {
  auto const place = mSlots.find(name);
  if (place == mSlots.end() || !isSubscribed(place->second.subscribers(kind).get(), module)) {
    fail(method, "module '" + module + "' has no subscription to key '" + name + "'");
  }
  auto& list = place->second.subscribers(kind);
  list = share(copyWithout(list.get(), module));
  xEraseIfUnused(place);
}

std::shared_ptr<KXSubscriptionList const> const& KXMemoryTable::currentSubscribers(
    KXMemorySlot& slot, KXKeyType kind) {
  auto& list = slot.subscribers(kind);
  bool const areCurrent = !list || std::all_of(list->begin(), list->end(),
                                               [](auto const& one) { return isCurrent(*one); });
  // No module can have an empty name, so this drops those that are gone and nobody else.
  if (!areCurrent) list = share(copyWithout(list.get(), ""));
  return list;
}

}  // namespace KX
