#include <host/memory/kxdelivery.hpp>

#include <algorithm>
#include <ctime>
#include <utility>
#include <vector>

#include <host/bus/kxsubject.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// Good for some milliseconds, and a quarter of the price of the exact clock: it is read at every
// raise.
std::int64_t coarseNowMs() {
  ::timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

KXDelivery::KXDelivery(boost::shared_ptr<KXBroker> const& broker, std::int64_t (*nowMs)())
    : mContext(std::make_shared<KXDeliveryContext>()) {
  mContext->broker = broker;
  mContext->nowMs = nowMs != nullptr ? nowMs : coarseNowMs;
}

KXDelivery::~KXDelivery() {
  stop();
  // Where a subscriber destroys the store: the threads end by themselves.
  for (auto const& [module, queue] : mQueues) queue->detach();
}

std::shared_ptr<KXSubscription> KXDelivery::subscribe(std::string const& key,
                                                      std::string const& module,
                                                      std::string const& method,
                                                      KXValue const& message) {
  std::lock_guard const lock(mMutex);
  QueuePointer const queue = xQueueOf(module);
  queue->hold();
  // A share that releases its hold when the subscription has gone.
  QueuePointer share(queue.get(), [queue](KXSubscriberQueue*) { queue->release(); });
  return std::make_shared<KXSubscription>(std::move(share), key, method, message);
}

// Known or new; forgets those whose subscriptions have ended.
KXDelivery::QueuePointer KXDelivery::xQueueOf(std::string const& module) {
  if (mIsStopping) {
    auto const queue = std::make_shared<KXSubscriberQueue>(module, mContext);
    queue->stop();  // It takes nothing.
    return queue;
  }
  std::erase_if(mQueues, [](auto const& entry) { return entry.second->joinIfOver(); });
  auto const known = mQueues.find(module);
  if (known != mQueues.end()) return known->second;
  xCheckUser(module);
  return mQueues.emplace(module, std::make_shared<KXSubscriberQueue>(module, mContext))
      .first->second;
}

// Who may subscribe for himself only may still make up as many processes of his as he likes.
void KXDelivery::xCheckUser(std::string const& module) const {
  std::string const user = parseAddress(module).user;
  if (user.empty()) return;
  auto const count = std::ranges::count_if(
      mQueues, [&](auto const& entry) { return parseAddress(entry.first).user == user; });
  if (count < kMaxOfUser) return;
  throw KXError("KXMemory", "subscribe",
                "user '" + user + "' has " + std::to_string(count) +
                    " modules that are told of events, the most that there may be",
                "memory/kxdelivery", 0, KXError::Kind::Refused);
}

bool KXDelivery::post(KXSubscriptionList const& subscribers, KXValue const& value) {
  bool isToAttend = false;
  try {
    for (auto const& subscription : subscribers) {
      isToAttend = subscription->queue->post(subscription, value) || isToAttend;
    }
  } catch (...) {
    // Memory for one of them is missing: those before it have a notification that wakes them.
    attend(subscribers);
    throw;
  }
  return isToAttend;
}

void KXDelivery::attend(KXSubscriptionList const& subscribers) {
  for (auto const& subscription : subscribers) subscription->queue->attend();
}

void KXDelivery::stop() {
  std::vector<QueuePointer> queues;
  {
    std::lock_guard const lock(mMutex);
    for (auto const& [module, queue] : mQueues) queues.push_back(queue);
    mIsStopping = true;
    std::lock_guard const contextLock(mContext->mutex);
    mContext->isStopping = true;
  }
  for (auto const& queue : queues) queue->stop();
  if (KXSubscriberQueue::isServing(*mContext)) return;
  for (auto const& queue : queues) queue->join();
}

}  // namespace KX
