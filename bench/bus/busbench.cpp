#include "bench/bus/busbench.hpp"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace KX::bench {

std::vector<std::string> keyNames(int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back("Device/Joint" + std::to_string(i) + "/Position");
  return names;
}

std::int64_t steadyNs() {
  return std::chrono::steady_clock::now().time_since_epoch().count();
}

std::string stampedText() {
  std::string text(kEventBytes, ' ');
  std::to_chars(text.data(), text.data() + text.size(), steadyNs());
  return text;
}

std::int64_t stampOf(std::string_view text) {
  std::int64_t ns = 0;
  std::from_chars(text.data(), text.data() + text.size(), ns);
  return ns;
}

double percentile(std::vector<std::int64_t>& numbers, double share) {
  if (numbers.empty()) return 0;
  std::sort(numbers.begin(), numbers.end());
  auto const index = static_cast<std::size_t>(share * static_cast<double>(numbers.size() - 1));
  return static_cast<double>(numbers[index]);
}

namespace {

// utime and stime stand behind the name, which may hold anything, in clock ticks.
std::int64_t cpuNsOf(std::string const& pid) {
  std::ifstream file("/proc/" + pid + "/stat");
  std::string line;
  std::getline(file, line);
  std::size_t const nameEnd = line.rfind(')');
  if (nameEnd == std::string::npos) return 0;
  std::istringstream rest(line.substr(nameEnd + 2));
  std::string field;
  for (int i = 0; i < 11; ++i) rest >> field;
  std::int64_t user = 0;
  std::int64_t system = 0;
  rest >> user >> system;
  return (user + system) * (1'000'000'000 / ::sysconf(_SC_CLK_TCK));
}

}  // namespace

std::int64_t usedCpuNs() {
  std::int64_t sum = cpuNsOf("self");
  std::string const tasks = "/proc/self/task";
  DIR* const directory = ::opendir(tasks.c_str());
  while (dirent const* const task = ::readdir(directory)) {
    std::ifstream children(tasks + "/" + task->d_name + "/children");
    for (std::string pid; children >> pid;) sum += cpuNsOf(pid);
  }
  ::closedir(directory);
  return sum;
}

RawConnection::RawConnection(std::string const& url, bool isSendingAtOnce) {
  natsOptions* options = nullptr;
  natsOptions_Create(&options);
  natsOptions_SetURL(options, url.c_str());
  natsOptions_SetSendAsap(options, isSendingAtOnce);
  natsStatus const status = natsConnection_Connect(&mConnection, options);
  natsOptions_Destroy(options);
  if (status != NATS_OK) throw std::runtime_error(natsStatus_GetText(status));
}

RawConnection::~RawConnection() {
  natsConnection_Destroy(mConnection);
}

std::string RawConnection::request(std::string const& subject, std::string const& payload) {
  natsMsg* reply = nullptr;
  natsStatus const status =
      natsConnection_Request(&reply, mConnection, subject.c_str(), payload.data(),
                             static_cast<int>(payload.size()), 60'000);
  if (status != NATS_OK) throw std::runtime_error(subject + ": " + natsStatus_GetText(status));
  std::string bytes(natsMsg_GetData(reply), static_cast<std::size_t>(natsMsg_GetDataLength(reply)));
  natsMsg_Destroy(reply);
  return bytes;
}

World& World::get() {
  static World world;
  return world;
}

World::World()
    : mServer("write_deadline: \"500ms\"\n"),
      mUrl(mServer.url()),
      mPeer({"/proc/self/exe", "--peer", mUrl}) {
  mPeer.waitForErrorText("ready");
}

std::unique_ptr<KXHost> World::join() const {
  KXHost::Options options{.withStore = false, .bus = KXBusOptions{}};
  options.bus->url = mUrl;
  options.bus->robot = kRobot;
  return std::make_unique<KXHost>(options);
}

Subscriber::Subscriber(boost::shared_ptr<KXBroker> const& broker)
    : KXModule(broker, "BenchSubscriber") {
  publish(*this, {"onEvent"}, &Subscriber::onEvent);
}

void Subscriber::onEvent(std::string const& /*key*/, KXValue const& value,
                         KXValue const& /*message*/) {
  std::int64_t const sentNs = stampOf(static_cast<std::string const&>(value));
  mLatenciesNs.push_back(steadyNs() - sentNs);
  mCount.fetch_add(1, std::memory_order_release);
}

void Subscriber::expect(std::size_t count) {
  mLatenciesNs.clear();
  mLatenciesNs.reserve(count);
  mExpected = count;
  mCount = 0;
}

bool Subscriber::wait() const {
  auto const end = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (mCount.load(std::memory_order_acquire) < mExpected) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

}  // namespace KX::bench
