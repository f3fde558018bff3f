// Parallel calls: what runs, and what is known about it.
#pragma once

#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxfunctorbase.hpp>
#include <kxcommon/kxmodulecore.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// Identity of one parallel call. Ids are positive and unique in the process.
class KX_API KXTaskInfo {
 public:
  /// Takes the next id.
  KXTaskInfo(std::string moduleName, std::string method);

  int getID() const noexcept { return mId; }
  /// `MODULE.METHOD#ID`: unique in the process, for keys and log lines.
  std::string toString() const;

 private:
  int const mId;
  std::string const mModuleName;
  std::string const mMethod;
};

/// One parallel call. The host's pool runs it once, on a thread of its own, and logs what it
/// throws.
class KX_API KXTask {
 public:
  explicit KXTask(KXTaskInfo info) : mInfo(std::move(info)) {}
  virtual ~KXTask();
  KXTaskInfo const& getInfo() const noexcept { return mInfo; }
  virtual void run() = 0;

 private:
  KXTaskInfo const mInfo;
};

namespace detail {

/// The parallel call of a method without arguments.
class KX_API _pcall0 : public KXTask {
 public:
  _pcall0(boost::shared_ptr<KXFunctorBase> functor, KXTaskInfo info,
          boost::shared_ptr<KXModuleCore> const& core);
  /// Does nothing if the module is gone or going. Owning it meanwhile would keep a module that the
  /// broker has dropped alive for as long as its own loop runs; instead the module's end waits
  /// (KXModuleEnd).
  void run() override;

 private:
  boost::shared_ptr<KXFunctorBase> const mFunctor;
  boost::weak_ptr<KXModuleCore> const mCore;
};

}  // namespace detail
}  // namespace KX
