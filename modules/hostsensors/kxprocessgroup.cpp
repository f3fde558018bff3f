#include <modules/hostsensors/kxprocessgroup.hpp>

#include <libproc2/pids.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include <modules/hostsensors/kxhostfiles.hpp>

namespace KX {

namespace {

constexpr std::chrono::seconds kListInterval(1);
// libproc2 refuses to select more at once.
constexpr std::size_t kMaxSelected = 255;
// The kernel's PF_FORKNOEXEC.
constexpr unsigned long kForkedWithoutExec = 0x40;

constexpr std::array<pids_item, 3> kItems = {PIDS_ID_PID, PIDS_CMD, PIDS_FLAGS};

std::set<int> listPids(std::string const& root) {
  std::set<int> pids;
  for (std::string const& name : listHostFolder(root + "/proc")) {
    if (auto const pid = parseCount(name)) pids.insert(static_cast<int>(*pid));
  }
  return pids;
}

}  // namespace

std::vector<KXProcess> KXProcessTracker::update(std::set<int> pids, KXProcessLookup const& lookup) {
  std::vector<int> candidates;
  if (mPids) {
    std::set_difference(pids.begin(), pids.end(), mPids->begin(), mPids->end(),
                        std::back_inserter(candidates));
  }
  candidates.insert(candidates.end(), mHeldBack.begin(), mHeldBack.end());
  std::set<int> const formerlyHeldBack = std::exchange(mHeldBack, {});
  mPids = std::move(pids);
  if (candidates.empty()) return {};

  std::sort(candidates.begin(), candidates.end());
  std::vector<KXProcess> started;
  for (KXProcess& process : lookup(candidates)) {
    if (process.hasOwnProgram || formerlyHeldBack.contains(process.pid)) {
      started.push_back(std::move(process));
    } else {
      mHeldBack.insert(process.pid);
    }
  }
  return started;
}

std::optional<KXThreadCounts> parseThreadCounts(std::string_view loadAverage) {
  std::string_view line;
  if (!takeLine(loadAverage, line)) return std::nullopt;
  std::vector<std::string_view> const words = splitWords(line);
  if (words.size() < 5) return std::nullopt;
  std::size_t const slash = words[3].find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto const running = parseCount(words[3].substr(0, slash));
  auto const total = parseCount(words[3].substr(slash + 1));
  auto const lastPid = parseCount(words[4]);
  if (!running || !total || !lastPid) return std::nullopt;
  return KXThreadCounts{static_cast<int>(*running), static_cast<int>(*total),
                        static_cast<int>(*lastPid)};
}

KXProcessGroup::KXProcessGroup(std::string root)
    : KXProcessGroup(std::move(root),
                     [this](std::vector<int> const& pids) { return xLookup(pids); }) {}

KXProcessGroup::KXProcessGroup(std::string root, KXProcessLookup lookup)
    : mRoot(std::move(root)), mLookup(std::move(lookup)) {}

KXProcessGroup::~KXProcessGroup() = default;

std::vector<KXHostKey> KXProcessGroup::keys() const {
  using enum KXHostKey::Kind;
  return {
      {"Host/Process/Count", "processes", Data, "int", "/proc"},
      {"Host/Process/RunningThreads", "threads that run or want to", Data, "int", "/proc/loadavg"},
      {"Host/Process/Threads", "threads", Data, "int", "/proc/loadavg"},
      {"Host/Process/Started", "name, pid", MicroEvent, "[string, int]", "/proc, libproc2 pids"},
  };
}

void KXProcessGroup::Unref::operator()(pids_info* info) const {
  procps_pids_unref(&info);
}

void KXProcessGroup::read(KXHostTime now, KXHostReport& report) {
  std::string const path = mRoot + "/proc/loadavg";
  std::optional<KXThreadCounts> const counts = parseThreadCounts(readHostFile(path));
  if (!counts) throwUnreadable(path, EINVAL);
  bool const isNewsLikely = counts->lastPid != mLastPid || mTracker.isHoldingBack();
  if (!mListTime || isNewsLikely || now - *mListTime >= kListInterval) {
    xList(report);
    mListTime = now;
    mLastPid = counts->lastPid;
  }
  report.add("Host/Process/Count", KXValue(mCount));
  report.add("Host/Process/RunningThreads", KXValue(counts->running));
  report.add("Host/Process/Threads", KXValue(counts->total));
}

void KXProcessGroup::xList(KXHostReport& report) {
  std::set<int> pids = listPids(mRoot);
  mCount = static_cast<int>(pids.size());
  for (KXProcess& process : mTracker.update(std::move(pids), mLookup)) {
    report.events.push_back(
        {"Host/Process/Started",
         KXValue::arrayOf(KXValue(std::move(process.name)), KXValue(process.pid)), true});
  }
}

std::vector<KXProcess> KXProcessGroup::xLookup(std::vector<int> const& pids) {
  if (!mInfo) {
    auto items = kItems;
    pids_info* info = nullptr;
    int const result = procps_pids_new(&info, items.data(), static_cast<int>(items.size()));
    if (result < 0) throwUnreadable("/proc", -result);
    mInfo.reset(info);
  }
  std::vector<KXProcess> processes;
  for (std::size_t first = 0; first < pids.size(); first += kMaxSelected) {
    std::size_t const end = std::min(pids.size(), first + kMaxSelected);
    std::vector<unsigned> selected(pids.begin() + static_cast<std::ptrdiff_t>(first),
                                   pids.begin() + static_cast<std::ptrdiff_t>(end));
    pids_fetch const* const fetch = procps_pids_select(
        mInfo.get(), selected.data(), static_cast<int>(selected.size()), PIDS_SELECT_PID);
    if (fetch == nullptr) throwUnreadable("/proc", errno);
    for (int i = 0; i < fetch->counts->total; ++i) {
      pids_result const* const fields = fetch->stacks[i]->head;
      bool const hasOwnProgram = (fields[2].result.ul_int & kForkedWithoutExec) == 0;
      processes.push_back({fields[0].result.s_int, fields[1].result.str, hasOwnProgram});
    }
  }
  return processes;
}

}  // namespace KX
