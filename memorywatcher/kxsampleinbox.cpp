#include <memorywatcher/kxsampleinbox.hpp>

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
  BatchPost(ka::os::timeval when, KXValue forKeys, KXValue what, std::size_t from, std::size_t to)
      : Post(when), keys(std::move(forKeys)), values(std::move(what)), begin(from), end(to) {}

  // Where filing threw, `begin` remembers the place at which to take it up again.
  void file(KXListenerMap& map, KXWatchList& list) override {
    std::size_t i = begin;
    try {
      KXValue const* const value = values.arrayData();
      if (list.isCurrent && list.keys.sharesBlockWith(keys)) {
        for (; i < end; ++i) list.items[i]->addData(time, value[i]);
        return;
      }
      KXValue const* const key = keys.arrayData();
      for (; i < end; ++i) {
        auto const entry = map.find(static_cast<std::string const&>(key[i]));
        if (entry != map.end()) entry->second.addData(time, value[i]);
      }
    } catch (...) {
      begin = i;
      throw;
    }
  }

  KXValue const keys;
  KXValue const values;
  std::size_t begin;
  std::size_t const end;
};

KXSampleInbox::~KXSampleInbox() {
  xTakeWaiting();
  while (mOldestTaken != nullptr) delete std::exchange(mOldestTaken, mOldestTaken->next);
}

void KXSampleInbox::postSample(std::string const& name, ka::os::timeval time, KXValue value) {
  xPost(new SamplePost(name, time, std::move(value)));
}

void KXSampleInbox::postBatch(ka::os::timeval time, KXValue keys, KXValue values, std::size_t begin,
                              std::size_t end) {
  xPost(new BatchPost(time, std::move(keys), std::move(values), begin, end));
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

void KXSampleInbox::fileInto(KXListenerMap& map, KXWatchList& list) {
  xTakeWaiting();
  while (mOldestTaken != nullptr) {
    mOldestTaken->file(map, list);
    delete std::exchange(mOldestTaken, mOldestTaken->next);
  }
}

}  // namespace KX
