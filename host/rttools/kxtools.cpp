#include <rttools/kxtools.hpp>

#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <host/bus/kxbusoptions.hpp>
#include <host/ka/loglines.hpp>
#include <host/rttools/kxbusarguments.hpp>
#include <host/rttools/kxhost.hpp>
#include <host/rttools/kxmodulelibrary.hpp>
#include <ka/log.hpp>
#include <ka/runlogged.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Create = boost::function<int(boost::shared_ptr<KXBroker>)>;

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
  int stderrLevel = ka::log::Warning;
  std::vector<std::string> libraries;
  std::optional<KXBusOptions> bus;
};

/// A command line that cannot be obeyed.
class UsageError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

void printLine(std::string const& name, std::string const& text) {
  std::fputs((name + ": " + ka::log::printable(text) + "\n").c_str(), stderr);
}

int stderrLevelOf(std::string const& level) {
  static constexpr char const* kNames[] = {"none", "fatal",   "error", "warning",
                                           "info", "verbose", "debug"};
  std::string known;
  for (int i = 0; auto const* name : kNames) {
    if (level == name) return i;
    known += (i++ == 0 ? "'" : ", '") + std::string(name) + "'";
  }
  throw UsageError("unknown log level '" + level + "', expected one of " + known);
}

std::string describeProcess(std::string const& name) {
  return "Runs the module '" + name +
         "' as a process of its own, with a launcher (KXLauncher), a store (KXMemory) and the\n"
         "modules of the libraries named by --load. There is no hardware cycle (VSM) in it.\n"
         "\n"
         "With --bus it joins a robot instead: the store is the robot's, and the module and those "
         "of\n"
         "--load are there for everybody on the robot, under their names. If another process has\n"
         "one of these names, that is an error. Without a bus nothing listens on any network.";
}

constexpr char kFooter[] =
    "Signals:\n"
    "  SIGINT (Ctrl-C), SIGTERM,   shut down: the module first, then the libraries' modules, the\n"
    "  SIGHUP                      store and the launcher; nohup keeps SIGHUP away\n"
    "  SIGQUIT (Ctrl-\\)            end at once, if a shutdown should hang\n"
    "\n"
    "Exit codes:\n"
    "  0  ended by SIGINT, SIGTERM or SIGHUP, or --help or --version was asked for\n"
    "  1  the module or a library's module could not be made, or the robot not be joined, or\n"
    "     another process has taken one of the names; the reason is on stderr\n"
    "  2  the command line was wrong; the reason is on stderr\n"
    "\n"
    "All messages go to stderr.";

/// The exit code, if the process is to end here.
std::optional<int> parse(std::string const& name, int argc, char** argv, Options& options) {
  CLI::App app(describeProcess(name), name);
  std::string level = "warning";
  app.set_help_flag("-h,--help", "print this and exit");
  app.set_version_flag("--version", name + " " + KX_VERSION, "print the version and exit");
  app.add_option("--log-level", level,
                 "the least severe level that is logged to stderr: none, fatal, error, warning,\n"
                 "info, verbose or debug")
      ->type_name("LEVEL")
      ->default_str(level);
  app.add_option("--load", options.libraries,
                 "a further module library, made before the module, in the order given: a file,\n"
                 "or a name such as kxhostsensors for lib/libkxhostsensors.so beside the\n"
                 "program's folder; may be repeated")
      ->type_name("LIBRARY")
      ->allow_extra_args(false);
  KXBusArguments const bus(app);
  app.footer(kFooter);
  app.allow_extras();  // So that the error is ours to word.
  try {
    app.parse(argc, argv);
    if (!app.remaining().empty())
      throw UsageError(
          "unexpected argument '" + app.remaining().front() +
          "', expected --help, --version, --log-level LEVEL, --load LIBRARY, --bus URL "
          "or --robot NAME; --help lists all");
    options.stderrLevel = stderrLevelOf(level);
    options.bus = bus.options();
    if (options.bus) checkBusOptions(*options.bus);
    return std::nullopt;
  } catch (CLI::Success const& request) {
    return app.exit(request);
  } catch (std::exception const& error) {
    printLine(name, error.what());
    return kUsage;
  }
}

/// Blocked for good, here and in every thread that is made from now on: a second signal during the
/// shutdown must neither end it half-way nor change the exit code.
::sigset_t blockEndSignals() {
  ::sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGINT);
  ::sigaddset(&signals, SIGTERM);
  // Started by nohup it is ignored, and is to stay so; blocked, it would be waited for.
  struct ::sigaction hangUp {};
  ::sigaction(SIGHUP, nullptr, &hangUp);
  if (hangUp.sa_handler != SIG_IGN) ::sigaddset(&signals, SIGHUP);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// Without a bus a host of its own, with one a part of the robot's.
std::unique_ptr<KXHost> makeHost(std::string const& name, Options const& options) {
  return std::make_unique<KXHost>(KXHost::Options{.name = name,
                                                  .withStore = !options.bus,
                                                  .withVsm = false,
                                                  .bus = options.bus,
                                                  .announced = KXHost::Announced::OwnModules,
                                                  .endsWithItsNames = true});
}

void makeModules(KXHost& host, Options const& options, Create const& create) {
  for (auto const& library : options.libraries) host.loadModule(findLibrary(library));
  int const result = create(host.getBroker());
  if (result != 0)
    throw KXError("KXTools", "mainFunction",
                  "expected its creation to return 0, but it returned " + std::to_string(result),
                  "rttools/kxtools", 0);
}

std::string servingText(KXBroker const& broker, Options const& options) {
  std::vector<std::string> names = broker.getModuleNames();
  if (options.bus) std::erase(names, "KXLauncher");  // it serves nobody else
  std::string modules;
  for (auto const& module : names) modules += (modules.empty() ? "'" : ", '") + module + "'";
  std::string const robot =
      options.bus ? " on robot '" + options.bus->robot + "' at " + options.bus->url : "";
  return "serving " + modules + robot + " as process " + std::to_string(::getpid()) +
         "; Ctrl-C or SIGTERM ends it";
}

// A robot without one is waited for, or its name is mistyped. On a thread of its own: a host that
// hangs may be waited for, a signal may not. The broker's shutdown ends it.
std::jthread lookForStore(std::string const& name, boost::shared_ptr<KXBroker> const& broker,
                          std::string const& robot) {
  auto const look = [=] {
    try {
      broker->getProxy("KXMemory", 0);
    } catch (KXError const& error) {
      if (error.getKind() != KXError::Kind::NotFound) return;  // it is not known
      printLine(name, "robot '" + robot + "' has no store (KXMemory) yet");
    }
  };
  auto const run = [](auto const& step) {
    ka::log::runLogged("KXTools", "mainFunction", "cannot look for the store", step);
  };
  std::jthread thread;
  run([&] { thread = std::jthread([=] { run(look); }); });
  return thread;
}

}  // namespace

int KXTools::mainFunction(std::string const& name, int argc, char** argv, Create const& create) {
  Options options;
  if (auto const exitCode = parse(name, argc, argv, options)) return *exitCode;
  ka::log::setStderrLevel(options.stderrLevel);
  ::sigset_t const endSignals = blockEndSignals();
  // Whoever reads stderr may go away; the service stays.
  std::signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<KXHost> host;
  char const* failed = "cannot join the robot: ";
  try {
    host = makeHost(name, options);
    failed = "cannot make the module: ";
    makeModules(*host, options, create);
    failed = "cannot serve the module: ";
    host->announce();
  } catch (...) {
    printLine(name, failed + describeCurrentException());
    return kFailed;
  }
  printLine(name, servingText(*host->getBroker(), options));
  std::jthread look;
  if (options.bus) look = lookForStore(name, host->getBroker(), options.bus->robot);
  int signal = 0;
  ::sigwait(&endSignals, &signal);
  host->shutdown();
  return host->hasLostName() ? kFailed : kOk;
}

}  // namespace KX
