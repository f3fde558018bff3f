// Answers calls that come over a bus with the modules of this process.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxmethodstatistics.hpp>
#include <host/bus/kxreplykeeper.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

struct KXServerOptions {
  int threads = 32;  ///< how many calls of one module, or of one broker, may run at once
  KXReplyKeeper::Limits kept{};  ///< of each module that is served under its plain name
};

/// The called side of one broker on one robot.
/// Ownership: keeps the broker; the bus outlives it. A call in progress keeps its module.
/// Threads: all operations may overlap. Calls run on the bus's threads.
class KX_API KXServer {
 public:
  KXServer(KXBus& bus, boost::shared_ptr<KXBroker> broker, KXSubjects subjects,
           KXServerOptions options = {});
  /// Takes no more requests and waits for the calls in progress, without limit, since they use what
  /// is destroyed next; after 5 s a line in the log says which they are. Not to be called by one.
  ~KXServer();
  KXServer(KXServer const&) = delete;
  KXServer& operator=(KXServer const&) = delete;

  /// Answers the calls to a module under its plain name. Nothing happens if it does so already.
  void serve(std::string const& module);
  /// As the destructor, for one module. Called by a call of that module, it does not wait for that
  /// call.
  void stopServing(std::string const& module);
  /// Answers the calls to all modules of the broker under their full address "NAME@USER.NONCE".
  void serveBroker(std::string const& user, std::string const& nonce);

  /// Refuses requests from now on, as those to a module that nobody has. Calls in progress go on,
  /// so that their modules can be told to end.
  void refuse();

  /// Tells this server from those that were there before: 16 hexadecimal digits.
  std::string const& instance() const noexcept;
  /// The modules under their plain names.
  std::vector<std::string> served() const;
  /// Of all methods of a module that were called, in whatever way it was addressed, in the order of
  /// their names.
  std::vector<KXMethodStatistics> statistics(std::string const& module) const;
  /// Of the replies that are kept.
  KXReplyKeeper::Counts counts() const;

 private:
  class Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
