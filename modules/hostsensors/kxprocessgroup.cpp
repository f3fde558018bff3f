// The processes: how many there are, and which are new.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <utility>

#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

constexpr std::chrono::seconds kListInterval(1);
// The kernel's PF_FORKNOEXEC.
constexpr std::uint64_t kForkedWithoutExec = 0x40;

std::set<int> listPids(std::string const& root) {
  std::set<int> pids;
  for (std::string const& name : listMachineFolder(root + "/proc")) {
    if (auto const pid = parseCount(name)) pids.insert(static_cast<int>(*pid));
  }
  return pids;
}

// On purpose not by libproc2: it would read files of every process for a list, and what it
// allocates for each thread that reads processes is never freed.
class ProcessGroup : public KXMachineGroup {
 public:
  explicit ProcessGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Process"; }
  std::vector<KXMachineKey> keys() const override;
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  void xList(KXMachineReport& report);

  std::string const mRoot;
  KXProcessTracker mTracker;
  int mLastPid = 0;
  int mCount = 0;
  std::optional<KXMachineTime> mListTime;
};

std::vector<KXMachineKey> ProcessGroup::keys() const {
  using enum KXMachineKey::Kind;
  return {
      {"Host/Process/Count", "processes", Data, "int", "/proc"},
      {"Host/Process/RunningThreads", "threads that run or want to", Data, "int", "/proc/loadavg"},
      {"Host/Process/Threads", "threads", Data, "int", "/proc/loadavg"},
      {"Host/Process/Started", "name, pid", MicroEvent, "[string, int]", "/proc"},
  };
}

void ProcessGroup::read(KXMachineTime now, KXMachineReport& report) {
  std::string const path = mRoot + "/proc/loadavg";
  std::optional<KXThreadCounts> const counts = parseThreadCounts(readMachineFile(path));
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

void ProcessGroup::xList(KXMachineReport& report) {
  std::set<int> pids = listPids(mRoot);
  mCount = static_cast<int>(pids.size());
  auto const lookup = [this](int pid) -> std::optional<KXProcess> {
    auto const text = tryReadMachineFile(mRoot + "/proc/" + std::to_string(pid) + "/stat");
    return text ? parseProcessStat(*text) : std::nullopt;
  };
  for (KXProcess& process : mTracker.update(std::move(pids), lookup)) {
    report.events.push_back(
        {"Host/Process/Started",
         KXValue::arrayOf(KXValue(std::move(process.name)), KXValue(process.pid)), true});
  }
}

}  // namespace

std::unique_ptr<KXMachineGroup> makeProcessGroup(std::string root) {
  return std::make_unique<ProcessGroup>(std::move(root));
}

std::optional<KXProcess> parseProcessStat(std::string_view text) {
  // PID (NAME) STATE PPID PGRP SESSION TTY TPGID FLAGS ...
  std::size_t const begin = text.find('(');
  std::size_t const end = text.rfind(')');
  if (begin == std::string_view::npos || end == std::string_view::npos || end < begin) {
    return std::nullopt;
  }
  std::vector<std::string_view> const head = splitWords(text.substr(0, begin));
  std::vector<std::string_view> const tail = splitWords(text.substr(end + 1));
  if (head.size() != 1 || tail.size() < 7) return std::nullopt;
  auto const pid = parseCount(head[0]);
  auto const flags = parseCount(tail[6]);
  if (!pid || !flags) return std::nullopt;
  return KXProcess{static_cast<int>(*pid), std::string(text.substr(begin + 1, end - begin - 1)),
                   (*flags & kForkedWithoutExec) == 0};
}

std::vector<KXProcess> KXProcessTracker::update(std::set<int> pids, Lookup const& lookup) {
  std::vector<int> candidates;
  if (mPids) {
    std::set_difference(pids.begin(), pids.end(), mPids->begin(), mPids->end(),
                        std::back_inserter(candidates));
  }
  candidates.insert(candidates.end(), mHeldBack.begin(), mHeldBack.end());
  std::set<int> const formerlyHeldBack = std::exchange(mHeldBack, {});
  mPids = std::move(pids);

  std::sort(candidates.begin(), candidates.end());
  std::vector<KXProcess> started;
  for (int const pid : candidates) {
    std::optional<KXProcess> process = lookup(pid);
    if (!process) continue;
    if (process->hasOwnProgram || formerlyHeldBack.contains(pid)) {
      started.push_back(std::move(*process));
    } else {
      mHeldBack.insert(pid);
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

}  // namespace KX
