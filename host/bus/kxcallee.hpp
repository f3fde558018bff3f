// What a request asks for, done: by a module of this process, or by the bus's own methods.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/bus/kxargumentcache.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// Runs calls that have been read from subjects. Threads: calls may overlap.
class KX_API KXCallee {
 public:
  /// `instance` is what @find answers.
  KXCallee(boost::shared_ptr<KXBroker> broker, std::string instance);

  /// The result; invalid if there is none. `caller` tells callers apart that send other arguments
  /// to the same subject; may be empty. Throws whatever the method throws, and KXError: NotFound
  /// for a module or a method that is not there, Refused for what may not be done in the name of a
  /// user, Failed for arguments that cannot be read.
  KXValue run(KXSubjects::Call const& call, std::string_view caller, std::string_view payload,
              bool isTask);

 private:
  KXValue xRunOwn(KXProxy& proxy, KXSubjects::Call const& call, KXValue const& arguments);
  KXValue xDecode(KXSubjects::Call const& call, std::string_view caller, std::string_view payload);
  bool xWait(KXProxy& proxy, int taskId, int timeoutMs);

  boost::shared_ptr<KXBroker> const mBroker;
  std::string const mInstance;
  std::atomic<int> mWaitingCount{0};  // threads in @wait
  std::mutex mMutex;
  KXDecodedArguments mDecoded;  // guarded by mMutex
};

}  // namespace KX
