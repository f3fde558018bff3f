#include <memorywatcher/kxsampleinbox.hpp>

#include <algorithm>
#include <memory>
#include <utility>

namespace KX {

void KXWatchList::refresh(KXListenerMap& map) {
  if (isCurrent) return;
  items.clear();
  unknown.clear();
  KXValue newNames;
  KXValue newKeys;
  newNames.arrayReserve(static_cast<int>(map.size()));
  newKeys.arrayReserve(static_cast<int>(map.size()));
  for (auto& [key, item] : map) {
    if (item.getNature() == "Unknown data") {
      unknown.push_back(static_cast<std::uint32_t>(items.size()));
    }
    items.push_back(&item);
    newKeys.arrayPush(KXValue(key));
    newNames.arrayPush(item.getName() == key ? newKeys[newKeys.getSize() - 1]
                                             : KXValue(item.getName()));
  }
  names = std::move(newNames);
  keys = std::move(newKeys);
  isCurrent = true;
}

struct KXSampleInbox::Post {
  explicit Post(ka::os::timeval when) : time(when) {}
  virtual ~Post() = default;
  virtual void file(KXListenerMap& map, KXWatchList& list) = 0;
  virtual BatchPost* asBatch() { return nullptr; }

  Post* next = nullptr;
  ka::os::timeval const time;
};

struct KXSampleInbox::SamplePost final : Post {
  SamplePost(std::string const& key, ka::os::timeval when, KXValue what)
      : Post(when), name(key), value(std::move(what)) {}

  void file(KXListenerMap& map, KXWatchList& list) override {
    auto const [entry, isNew] = map.try_emplace(name);
    if (isNew) list.isCurrent = false;
    entry->second.addData(time, value);
  }

  std::string const name;
  KXValue const value;
};

struct KXSampleInbox::BatchPost final : Post {
  BatchPost(ka::os::timeval when, KXValue forKeys, KXValue what, std::size_t from, std::size_t to,
            std::size_t countsFor)
      : Post(when),
        keys(std::move(forKeys)),
        values(std::move(what)),
        begin(from),
        end(to),
        weight(countsFor) {}

  void file(KXListenerMap& map, KXWatchList&) override {
    KXValue const* const key = keys.arrayData();
    KXValue const* const value = values.arrayData();
    for (; begin < end; ++begin) {
      auto const entry = map.find(static_cast<std::string const&>(key[begin]));
      if (entry != map.end()) entry->second.addData(time, value[begin]);
    }
  }
  BatchPost* asBatch() override { return this; }

  KXValue const keys;
  KXValue const values;
  std::size_t begin;  // moves on with what is filed, so that a failure can be taken up again
  std::size_t const end;
  std::size_t const weight;  // values that the batch counts for while it waits
};

namespace {

// Files batches of the same keys key by key: each key's memory is touched once for all of them.
// The items and their buffers lie all over the memory, so they are asked for some keys ahead.
template <class Batch>
void fileTogether(std::vector<Batch*> const& batches, KXWatchList const& list) {
  constexpr std::size_t kAhead = 8;
  std::vector<KXBatchColumn> columns;
  for (Batch const* batch : batches) columns.push_back({batch->time, batch->values.arrayData()});
  std::size_t const end = batches.front()->end;
  std::size_t i = batches.front()->begin;
  try {
    for (; i < end; ++i) {
      if (i + 2 * kAhead < end) {
        list.items[i + 2 * kAhead]->prefetchBuffer();
        list.items[i + kAhead]->prefetchEnd();
      }
      list.items[i]->addColumns(columns, i);
    }
  } catch (...) {
    for (Batch* batch : batches) batch->begin = i;
    throw;
  }
}

}  // namespace

KXSampleInbox::~KXSampleInbox() {
  xTakeWaiting();
  while (mOldestTaken != nullptr) delete std::exchange(mOldestTaken, mOldestTaken->next);
}

void KXSampleInbox::postSample(std::string const& name, ka::os::timeval time, KXValue value) {
  xPost(new SamplePost(name, time, std::move(value)));
}

void KXSampleInbox::postBatch(ka::os::timeval time, KXValue keys, KXValue values, std::size_t begin,
                              std::size_t end) {
  auto* const post = new BatchPost(time, std::move(keys), std::move(values), begin, end,
                                   std::max(end - begin, kLeastValuesPerBatch));
  mWaitingValues.fetch_add(post->weight, std::memory_order_relaxed);
  xPost(post);
}

// A stack onto which anybody pushes and which is only ever taken as a whole, so no element can
// come back under a pusher's hand.
void KXSampleInbox::xPost(Post* post) noexcept {
  post->next = mNewest.load(std::memory_order_relaxed);
  while (!mNewest.compare_exchange_weak(post->next, post, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
}

void KXSampleInbox::xTakeWaiting() noexcept {
  if (mNewest.load(std::memory_order_relaxed) == nullptr) return;
  Post* post = mNewest.exchange(nullptr, std::memory_order_acquire);
  Post* const newest = post;
  Post* oldest = nullptr;
  while (post != nullptr) {
    Post* const older = post->next;
    post->next = oldest;
    oldest = post;
    post = older;
  }
  (mOldestTaken == nullptr ? mOldestTaken : mNewestTaken->next) = oldest;
  mNewestTaken = newest;
}

void KXSampleInbox::xDropOldest() noexcept {
  if (BatchPost const* batch = mOldestTaken->asBatch()) {
    mWaitingValues.fetch_sub(batch->weight, std::memory_order_relaxed);
  }
  delete std::exchange(mOldestTaken, mOldestTaken->next);
}

// The oldest posts, as far as they are batches over the same keys of the map as it is now.
std::vector<KXSampleInbox::BatchPost*> KXSampleInbox::xOldestBatches(
    KXWatchList const& list) const {
  std::vector<BatchPost*> batches;
  for (Post* post = mOldestTaken; post != nullptr && list.isCurrent; post = post->next) {
    BatchPost* const batch = post->asBatch();
    if (batch == nullptr || !batch->keys.sharesBlockWith(list.keys)) break;
    if (!batches.empty() &&
        (batch->begin != batches.front()->begin || batch->end != batches.front()->end)) {
      break;
    }
    batches.push_back(batch);
  }
  return batches;
}

void KXSampleInbox::fileInto(KXListenerMap& map, KXWatchList& list) {
  xTakeWaiting();
  while (mOldestTaken != nullptr) {
    std::vector<BatchPost*> const batches = xOldestBatches(list);
    if (batches.empty()) {
      mOldestTaken->file(map, list);
      xDropOldest();
    } else {
      fileTogether(batches, list);
      for (std::size_t i = 0; i < batches.size(); ++i) xDropOldest();
    }
  }
}

}  // namespace KX
