#include <host/bus/kxargumentcache.hpp>

#include <utility>

namespace KX {
namespace {

// Surely the same, without looking into what is large.
bool isSame(KXValue const& left, KXValue const& right) {
  if (left.sharesBlockWith(right)) return true;
  if (left.getType() != right.getType() || left.getType() == KXValue::TypeArray) return false;
  return left.getSize() <= 64 && left == right;
}

bool areSame(KXValue const& left, KXValue const& right) {
  if (left.sharesBlockWith(right)) return true;
  if (left.getType() != KXValue::TypeArray || right.getType() != KXValue::TypeArray) return false;
  if (left.getSize() != right.getSize()) return false;
  for (int i = 0; i < left.getSize(); ++i) {
    if (!isSame(left[i], right[i])) return false;
  }
  return true;
}

}  // namespace

std::shared_ptr<std::string const> KXEncodedArguments::find(KXValue const& arguments) const {
  return mBytes && areSame(mArguments, arguments) ? mBytes : nullptr;
}

void KXEncodedArguments::keep(KXValue& arguments, std::shared_ptr<std::string const> bytes) {
  if (bytes->size() < kLeastCachedBytes || bytes->size() > kMostCachedBytes) return;
  mArguments.swap(arguments);
  mBytes = std::move(bytes);
}

KXValue const* KXDecodedArguments::find(std::string const& key, std::string_view bytes) {
  auto const found = mByKey.find(key);
  if (found == mByKey.end() || found->second->bytes != bytes) return nullptr;
  mEntries.splice(mEntries.end(), mEntries, found->second);
  return &found->second->arguments;
}

void KXDecodedArguments::keep(std::string const& key, std::string_view bytes,
                              KXValue const& arguments) {
  if (bytes.size() < kLeastCachedBytes || bytes.size() > kMostCachedBytes) return;
  auto const found = mByKey.find(key);
  if (found != mByKey.end()) xErase(found->second);
  while (!mEntries.empty() &&
         (mEntries.size() >= kMaxEntries || mBytes + bytes.size() > kMaxBytes)) {
    xErase(mEntries.begin());
  }
  mByKey[key] = mEntries.insert(mEntries.end(), {key, std::string(bytes), arguments});
  mBytes += bytes.size();
}

void KXDecodedArguments::xErase(std::list<Entry>::iterator entry) {
  mBytes -= entry->bytes.size();
  mByKey.erase(entry->key);
  mEntries.erase(entry);
}

}  // namespace KX
