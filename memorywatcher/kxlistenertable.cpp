#include <memorywatcher/kxlistenertable.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>

namespace KX {

namespace {

constexpr std::size_t kBatchesPerPiece = 32;

std::int64_t microseconds(ka::os::timeval time) {
  return time.tv_sec * 1'000'000 + time.tv_usec;
}

ka::os::timeval timeOf(KXBatch const& batch) {
  return {batch.timeUs / 1'000'000, batch.timeUs % 1'000'000};
}

}  // namespace

/// A batch, or one sample with its key's characters right behind it: events come one by one, and
/// what waits of them should be small.
struct KXListenerTable::Post {
  Post(ka::os::timeval time, KXKeyListPtr itsList, KXValue itsValue, std::size_t first,
       std::size_t last)
      : timeUs(microseconds(time)),
        list(std::move(itsList)),
        value(std::move(itsValue)),
        begin(static_cast<std::uint32_t>(first)),
        end(static_cast<std::uint32_t>(last)) {}

  static std::unique_ptr<Post> ofSample(std::string const& key, ka::os::timeval time,
                                        KXValue value) {
    void* const memory = ::operator new(sizeof(Post) + key.size());
    std::unique_ptr<Post> post(new (memory) Post(time, nullptr, std::move(value), 0, key.size()));
    std::memcpy(static_cast<char*>(memory) + sizeof(Post), key.data(), key.size());
    return post;
  }
  std::string_view key() const { return {reinterpret_cast<char const*>(this + 1), end}; }

  // No size: the characters belong to the block too.
  static void* operator new(std::size_t, void* memory) noexcept { return memory; }
  static void* operator new(std::size_t size) { return ::operator new(size); }
  static void operator delete(void* memory) noexcept { ::operator delete(memory); }

  Post* next = nullptr;
  std::int64_t timeUs;
  KXKeyListPtr list;  // null for a sample
  KXValue value;      // the sample's, or the array of the batch
  std::uint32_t begin;
  std::uint32_t end;  // of a sample: the length of its key
};

KXListenerTable::KXListenerTable(boost::shared_ptr<KXMutex> mutex) : mMutex(std::move(mutex)) {}

KXListenerTable::~KXListenerTable() {
  mMutex->assertHeld();  // for the analysis: there is nobody left to hold it against
  KXMailbox<Post>::drop(mWaiting);
}

void KXListenerTable::postSample(std::string const& key, ka::os::timeval time, KXValue value) {
  mMailbox.post(Post::ofSample(key, time, std::move(value)));
}

void KXListenerTable::postBatch(KXKeyListPtr list, ka::os::timeval time, KXValue values,
                                std::size_t begin, std::size_t end) {
  mMailbox.post(std::make_unique<Post>(time, std::move(list), std::move(values), begin, end));
}

// No access, which would take in first: memory is what is missing when this is called.
void KXListenerTable::putBack(KXTaken&& taken) {
  KXCriticalSection const lock(mMutex);
  mBatches.splice(mBatches.begin(), taken.batches);
  for (KXOwnSamples& own : taken.own) {
    auto const found = mEntries.find(static_cast<std::string const&>(own.key));
    if (found == mEntries.end() || found->second.since != own.since) continue;
    xMarkOwn(found->second);
    found->second.item.putSamplesInFront(std::move(own.samples));
  }
}

// ---- taking in

void KXListenerTable::xTakeIn() {
  xTakeInWaiting();  // what a failure left behind
  mWaiting = mMailbox.takeAll();
  xTakeInWaiting();
}

void KXListenerTable::xTakeInWaiting() {
  while (mWaiting != nullptr) {
    Post& post = *mWaiting;
    post.list ? xTakeInBatch(post) : xTakeInSample(post);
    delete std::exchange(mWaiting, post.next);
  }
}

void KXListenerTable::xTakeInBatch(Post& post) {
  if (!mBatches.empty()) {
    // A cycle that had to ask for the nature of a key posts its answer in parts: here they become
    // one batch again.
    KXBatch& last = mBatches.back().back();
    if (last.end == post.begin && last.list == post.list &&
        last.values.sharesBlockWith(post.value)) {
      last.end = post.end;
      return;
    }
  }
  if (mBatches.empty() || mBatches.back().size() == kBatchesPerPiece) {
    std::vector<KXBatch> piece;
    piece.reserve(kBatchesPerPiece);
    mBatches.push_back(std::move(piece));
  }
  mBatches.back().push_back(
      {post.timeUs, std::move(post.list), std::move(post.value), post.begin, post.end});
}

void KXListenerTable::xTakeInSample(Post& post) {
  // An item's own samples are older than what batches hold for it.
  if (!mBatches.empty()) xSpreadBatches();
  Entry& entry = xEntry(post.key());
  xAddSample(entry, {post.timeUs / 1'000'000, post.timeUs % 1'000'000}, post.value);
}

// Only where batches and single samples meet in one table: when somebody has the event keys read.
void KXListenerTable::xSpreadBatches() {
  for (std::vector<KXBatch>& piece : mBatches) {
    for (KXBatch& batch : piece) {
      KXValue const* const values = std::as_const(batch.values).arrayData();
      // Moves on with what is done, so that a failure can be taken up again.
      for (; batch.begin < batch.end; ++batch.begin) {
        auto const& key =
            static_cast<std::string const&>(batch.list->keys[static_cast<int>(batch.begin)]);
        auto const found = mEntries.find(key);
        if (found == mEntries.end() || found->second.since > batch.list->version) continue;
        xAddSample(found->second, timeOf(batch), values[batch.begin]);
      }
    }
  }
  mBatches.clear();
}

void KXListenerTable::xAddSample(Entry& entry, ka::os::timeval time, KXValue const& value) {
  xMarkOwn(entry);
  entry.item.addData(time, value);
}

KXListenerTable::Entry& KXListenerTable::xEntry(std::string_view key) {
  auto const found = mEntries.find(key);
  if (found != mEntries.end()) return found->second;
  Entry entry;
  entry.key = KXValue(std::string(key));
  entry.since = mVersion + 1;
  Entry& made = mEntries.emplace(std::string(key), std::move(entry)).first->second;
  xChangeKeys();
  return made;
}

void KXListenerTable::xMarkOwn(Entry& entry) {
  if (entry.ownPlace != 0) return;
  mWithOwnSamples.push_back(&entry);
  entry.ownPlace = mWithOwnSamples.size();
}

void KXListenerTable::xUnmarkOwn(Entry& entry) noexcept {
  if (entry.ownPlace == 0) return;
  Entry* const last = mWithOwnSamples.back();
  mWithOwnSamples[entry.ownPlace - 1] = last;
  last->ownPlace = entry.ownPlace;
  entry.ownPlace = 0;
  mWithOwnSamples.pop_back();
}

void KXListenerTable::xChangeKeys() noexcept {
  ++mVersion;
  mList.reset();
}

// ---- access

KXListenerTable::Access::Access(KXListenerTable& table) : mTable(table) {
  mLock.emplace(table.mMutex);
  takeIn();
}

KXListenerTable::Access::Access(KXListenerTable& table, KXCriticalTrueIfLocked const&)
    : mTable(table) {
  takeIn();
}

void KXListenerTable::Access::takeIn() {
  mTable.mMutex->assertHeld();
  mTable.xTakeIn();
}

KXMemoryWatcherItem const* KXListenerTable::Access::find(std::string const& key) const {
  mTable.mMutex->assertHeld();
  auto const found = mTable.mEntries.find(key);
  return found == mTable.mEntries.end() ? nullptr : &found->second.item;
}

KXMemoryWatcherItem KXListenerTable::Access::itemWithSamples(std::string const& key) const {
  mTable.mMutex->assertHeld();
  Entry const& entry = mTable.mEntries.at(key);
  KXMemoryWatcherItem item = entry.item;
  KXKeyList const* list = nullptr;  // the one that `place` is for
  std::size_t place = 0;
  for (std::vector<KXBatch> const& piece : mTable.mBatches) {
    for (KXBatch const& batch : piece) {
      if (batch.list->version < entry.since) continue;
      if (batch.list.get() != list) {
        list = batch.list.get();
        KXValue const* const first = list->keys.arrayData();
        KXValue const* const last = first + list->keys.getSize();
        KXValue const* const found =
            std::lower_bound(first, last, key, [](KXValue const& left, std::string const& right) {
              return static_cast<std::string const&>(left) < right;
            });
        place = static_cast<std::size_t>(found - first);
      }
      if (place < batch.begin || place >= batch.end) continue;
      item.addData(timeOf(batch), std::as_const(batch.values).arrayData()[place]);
    }
  }
  return item;
}

KXKeyListPtr const& KXListenerTable::Access::list() {
  mTable.mMutex->assertHeld();
  if (mTable.mList) return mTable.mList;
  boost::intrusive_ptr<KXKeyList> const list(new KXKeyList);
  list->version = mTable.mVersion;
  int const size = static_cast<int>(mTable.mEntries.size());
  list->keys.arraySetSize(0);
  list->keys.arrayReserve(size);
  list->names.arraySetSize(0);
  list->names.arrayReserve(size);
  list->since.reserve(mTable.mEntries.size());
  for (auto const& [key, entry] : mTable.mEntries) {
    if (entry.item.getNature() == kUnknownData) {
      list->unknown.push_back(static_cast<std::uint32_t>(list->since.size()));
    }
    list->keys.arrayPush(entry.key);
    list->names.arrayPush(entry.item.getName() == key ? entry.key : KXValue(entry.item.getName()));
    list->since.push_back(entry.since);
  }
  mTable.mList = list;
  return mTable.mList;
}

std::vector<std::pair<std::string, std::string>> KXListenerTable::Access::natures() const {
  mTable.mMutex->assertHeld();
  std::vector<std::pair<std::string, std::string>> natures;
  natures.reserve(mTable.mEntries.size());
  for (auto const& [key, entry] : mTable.mEntries)
    natures.emplace_back(key, entry.item.getNature());
  return natures;
}

void KXListenerTable::Access::insert(std::string const& key, KXMemoryWatcherItem item) {
  mTable.mMutex->assertHeld();
  // First, so that no memory is wanted once the key is made: it would stand there without its item.
  std::vector<Entry*>& withOwn = mTable.mWithOwnSamples;
  if (withOwn.size() == withOwn.capacity()) withOwn.reserve(2 * withOwn.size() + 16);
  Entry& entry = mTable.xEntry(key);
  if (item.hasSamples()) mTable.xMarkOwn(entry);
  entry.item = std::move(item);
  // Samples that are still on their way belong to the key's predecessor.
  entry.since = mTable.mVersion + 1;
  mTable.xChangeKeys();
}

void KXListenerTable::Access::retype(std::string const& key, std::string const& nature) {
  mTable.mMutex->assertHeld();
  mTable.mEntries.at(key).item.setNature(nature);
  mTable.xChangeKeys();
}

KXListenerTable::Dropped KXListenerTable::Access::erase(std::string const& key) {
  mTable.mMutex->assertHeld();
  Dropped dropped;
  auto const found = mTable.mEntries.find(key);
  if (found == mTable.mEntries.end()) return dropped;
  mTable.xUnmarkOwn(found->second);
  dropped.entries.insert(mTable.mEntries.extract(found));
  ++mTable.mRemovals;
  mTable.xChangeKeys();
  return dropped;
}

KXListenerTable::Dropped KXListenerTable::Access::eraseAll() {
  mTable.mMutex->assertHeld();
  Dropped dropped;
  dropped.entries.swap(mTable.mEntries);
  dropped.batches.swap(mTable.mBatches);
  ++mTable.mRemovals;
  mTable.mWithOwnSamples.clear();
  mTable.xChangeKeys();
  return dropped;
}

KXTaken KXListenerTable::Access::take() {
  mTable.mMutex->assertHeld();
  KXKeyListPtr const keys = list();
  KXTaken taken = takeSamples();
  taken.list = keys;
  return taken;
}

KXTaken KXListenerTable::Access::takeSamples() {
  mTable.mMutex->assertHeld();
  KXTaken taken;
  taken.own.reserve(mTable.mWithOwnSamples.size());
  // From here on nothing can fail.
  for (Entry* const entry : mTable.mWithOwnSamples) {
    taken.own.push_back({entry->key, entry->since, entry->item.takeSamples()});
    entry->ownPlace = 0;
  }
  mTable.mWithOwnSamples.clear();
  taken.batches.swap(mTable.mBatches);
  return taken;
}

}  // namespace KX
