#include <kx/watch/watchedkeys.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <set>
#include <string_view>
#include <utility>

#include <kxerror/kxerror.hpp>

#include <kx/output.hpp>

namespace KX::tool {
namespace {

// What is watched when nobody names a key. A pattern may match nothing on some machines.
constexpr std::array kDefaultPatterns{
    "Host/Cpu/Usage",
    "Host/Cpu/Saturated",
    "Host/Load/1min",
    "Host/Memory/AvailableBytes",
    "Host/Memory/UsedBytes",
    "Host/Memory/Low",
    "Host/Disk/*/ReadBytesPerSecond",
    "Host/Disk/*/WrittenBytesPerSecond",
    "Host/Network/*BytesPerSecond",
    "Host/Network/LinkChanged",
    "Host/Process/Count",
    "Host/Process/Started",
    "Host/Temperature/*",
    "Host/UptimeSeconds",
};

bool isGlob(std::string_view text) {
  return text.find_first_of("*?[\\") != std::string_view::npos;
}

class KeyFinder {
 public:
  explicit KeyFinder(KXSession const& session) : mSession(session) {}

  void addDefaults() {
    for (char const* pattern : kDefaultPatterns) xAddMatches(pattern);
  }

  void add(std::string const& argument) {
    if (!mSession.typeOf(argument).empty()) {
      xAddKey(argument);
    } else if (!isGlob(argument)) {
      mMissing.push_back(argument);
      if (mSeen.insert(argument).second) mKeys.unknown.push_back(argument);
    } else if (xAddMatches(argument) == 0) {
      mMissing.push_back(argument);
    }
  }

  KXWatchedKeys take() {
    bool const isAnyThere = !mKeys.data.empty() || !mKeys.events.empty();
    if (!isAnyThere) {
      throw KXToolError(kNothingThere, mMissing.empty()
                                           ? mSession.isOnRobot()
                                                 ? "the robot has none of the usual keys; kx "
                                                   "list --bus lists those that it has"
                                                 : "the sensors publish no key"
                                           : mSession.noMatchText(mMissing));
    }
    if (!mMissing.empty()) say(mSession.noMatchText(mMissing));
    for (auto* group : {&mKeys.data, &mKeys.unknown, &mKeys.events}) std::ranges::sort(*group);
    return std::move(mKeys);
  }

 private:
  std::size_t xAddMatches(std::string const& pattern) {
    std::vector<std::string> const matches = mSession.keys(pattern);
    for (std::string const& key : matches) xAddKey(key);
    return matches.size();
  }

  void xAddKey(std::string const& key) {
    if (!mSeen.insert(key).second) return;
    (isEventType(mSession.typeOf(key)) ? mKeys.events : mKeys.data).push_back(key);
  }

  KXSession const& mSession;
  KXWatchedKeys mKeys;
  std::set<std::string> mSeen;
  std::vector<std::string> mMissing;
};

}  // namespace

bool isEventType(std::string_view type) {
  return type == "Event" || type == "MicroEvent";
}

bool isEventByNow(KXSession const& session, std::string const& key) {
  try {
    return isEventType(session.typeOf(key));
  } catch (KXError const&) {
    return false;  // a watch outlives a cut; the key's next sample asks again
  }
}

KXWatchedKeys findKeys(KXSession const& session, std::vector<std::string> const& patterns) {
  KeyFinder finder(session);
  if (patterns.empty()) finder.addDefaults();
  for (std::string const& pattern : patterns) finder.add(pattern);
  return finder.take();
}

}  // namespace KX::tool
