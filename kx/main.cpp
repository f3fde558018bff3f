// kx: the command line of a host. Options and exit codes; the verbs have files of their own.
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <host/bus/kxbusoptions.hpp>
#include <host/rttools/kxbusarguments.hpp>
#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>
#include <kxerror/kxerror.hpp>

namespace KX::tool {
namespace {

constexpr char const* kFooter = R"(
Data goes to stdout, everything else to stderr. Control characters in keys and texts are shown
escaped. NO_COLOR, set and not empty, switches colours off.
Exit codes: 0 ok, 1 failed, 2 wrong usage, 3 nothing there, 4 time-out.)";

constexpr char const* kWatchFooter = R"(
KEY is the name of a key or a shell pattern (* matches / too; quote it). A name that is not there
yet is watched from the moment it appears, beside at least one key that is there. Without KEY: load,
memory, rates, uptime and events of this machine. Data keys are sampled once per period, events are
printed as they are raised. Sensors are read every 100 ms, or once per period where that is shorter.

Formats:
  table   keys, last values, times taken, samples so far. On a terminal it is redrawn in place,
          elsewhere a new table is printed for every second.
  jsonl   a JSON object per sample: {"time": Unix seconds, "key": ..., "value": ...}. Exact: to be
          preferred where texts or arrays are watched. Bytes that are not UTF-8 become U+FFFD.
  csv     a row per batch, a column per data key, the time in Unix seconds; an empty cell is a
          missing value. No events. Booleans are 1 and 0; in texts double quotes become single
          ones and control characters blanks.

The watch ends after --for, at SIGINT, SIGTERM or SIGHUP, or when nobody reads stdout any more. What
was taken until then is printed, unless nobody reads for a second: then the lines that were lost are
counted, and the exit code is 1. --for asks for the periods that are due before its end, the first
at its start: 3s of 100 ms are 30 periods. A summary on stderr tells the periods asked, taken and
missed, and how late the batches were: against the moment of the start plus whole periods, with
--cycle against the moment when the hardware cycle was due that a batch served.

With --bus the keys are those of a robot. Each watch has a watcher of its own in its process, so
that none takes another's samples, and leaves the robot's sensors at their pace. With --shared it is
the watcher that is announced on the robot: its period becomes that of --period, for all its
clients and for good; keys that it has not are added, and taken out at the end; it is started and
stopped only if nobody had started it. What a fetch takes is taken from its other clients, also of
their keys. Its batches are told apart by their times, and no periods are counted.
)";

constexpr char const* kHostFooter = R"(
Runs until SIGINT, SIGTERM or SIGHUP. The robot has the modules KXLauncher, KXMemory (the store),
KXHostSensors, those of --load and, with --cycle, VSM. A robot has one module of a name: if another
process has one of these names, that is an error; if one takes it later, as it may while this one
hangs, this one ends with exit code 1.
)";

constexpr char const* kBusFooter = R"(
Options override the environment; an empty one is none. Passwords and tokens stand in files of one
line.
)";

struct Arguments {
  KXWatchOptions watch;
  KXListOptions list;
  KXDescribeOptions describe;
  KXHostOptions host;
  KXRobotsOptions robots;
  std::string listing = "table";
  std::string period = std::to_string(KXWatchOptions{}.periodMs);
  std::string duration;
  std::string format = "table";
};

void addLoad(CLI::App& verb, std::vector<std::string>& libraries) {
  verb.add_option("--load", libraries,
                  "load a module library of your own, by file or by name; may be repeated")
      ->option_text("LIB")
      ->allow_extra_args(false);
}

CLI::App* addWatch(CLI::App& app, Arguments& arguments) {
  CLI::App* const verb = app.add_subcommand("watch", "sample keys and print what was taken");
  verb->add_option("KEY", arguments.watch.patterns, "keys or shell patterns");
  verb->add_option(
          "--period", arguments.period,
          "time between two samples in ms; the watcher cuts it to a multiple of 10, at least 10")
      ->option_text("MS (" + arguments.period + ")")
      ->take_last();
  verb->add_option("--for", arguments.duration, "how long, as 500ms, 10s, 2m or 1h")
      ->option_text("DURATION")
      ->take_last();
  verb->add_option("--format", arguments.format, "table, jsonl or csv")
      ->option_text("FORMAT (" + arguments.format + ")")
      ->take_last();
  verb->add_flag("--cycle", arguments.watch.isCyclePaced,
                 "pace by a 10 ms hardware cycle (VSM) instead of timed waits");
  verb->add_flag("--shared", arguments.watch.isShared,
                 "with --bus: watch with the robot's own watcher, which others use too");
  addLoad(*verb, arguments.watch.libraries);
  verb->footer(kWatchFooter);
  return verb;
}

CLI::App* addList(CLI::App& app, Arguments& arguments) {
  CLI::App* const verb = app.add_subcommand("list", "list the keys, sorted");
  verb->add_option("PATTERN", arguments.list.pattern, "shell pattern; none: all keys");
  verb->add_flag("--types", arguments.list.withTypes, "print the type before each key");
  addLoad(*verb, arguments.list.libraries);
  return verb;
}

CLI::App* addDescribe(CLI::App& app, Arguments& arguments) {
  CLI::App* const verb =
      app.add_subcommand("describe", "describe the modules, or one module and its methods");
  verb->add_option("MODULE", arguments.describe.module, "name of a module; none: all of them");
  addLoad(*verb, arguments.describe.libraries);
  return verb;
}

CLI::App* addHost(CLI::App& app, Arguments& arguments) {
  CLI::App* const verb = app.add_subcommand("host", "run a robot's host, for others on the bus");
  verb->add_flag("--cycle", arguments.host.withCycle, "run a 10 ms hardware cycle (VSM)");
  addLoad(*verb, arguments.host.libraries);
  verb->footer(kHostFooter);
  return verb;
}

CLI::App* addRobots(CLI::App& app, Arguments& arguments) {
  CLI::App* const verb = app.add_subcommand("robots", "list the robots on the bus");
  verb->add_option("--format", arguments.listing, "table or json")
      ->option_text("FORMAT (" + arguments.listing + ")")
      ->take_last();
  return verb;
}

// The bus that the options or the environment name; without one where none is needed.
std::optional<KXBusOptions> busOf(KXBusArguments const& bus) {
  try {
    auto const options = bus.options();
    if (options) checkBusOptions(*options);
    return options;
  } catch (std::invalid_argument const& error) {
    throw KXUsageError(error.what());
  } catch (KXError const& error) {
    throw KXUsageError(error.what());
  }
}

KXBusOptions neededBusOf(KXBusArguments const& bus, char const* reason) {
  auto const options = busOf(bus);
  if (options) return *options;
  throw KXUsageError(std::string("expected a bus (--bus URL or KX_BUS), got none: ") + reason);
}

// What a tool at a robot has no modules of its own for.
void refuseOnRobot(CLI::App const& verb, std::vector<char const*> const& options) {
  for (char const* option : options) {
    if (verb.count(option) == 0) continue;
    throw KXUsageError(std::string(option) +
                       ": expected no bus, got one: the modules are those of "
                       "the robot; --bus '' means none");
  }
}

// What the parser could not place is a mistyped verb or option, or one argument too many.
void refuseRest(CLI::App const& app) {
  std::vector<std::string> rest = app.remaining();
  std::erase(rest, "--");
  if (rest.empty()) return;
  std::string const& first = rest.front();
  std::vector<std::string> known;
  bool const isOption = first.size() > 1 && first[0] == '-';
  if (isOption) {
    for (CLI::Option const* option : app.get_options()) {
      for (std::string const& name : option->get_lnames()) known.push_back("--" + name);
    }
  } else {
    for (CLI::App const* verb : app.get_subcommands({})) known.push_back(verb->get_name());
  }
  std::string const shown = "'" + forTerminal(first.substr(0, first.find('='))) + "'";
  if (isOption) {
    throw KXUsageError("unknown option " + shown +
                       nearestHint(first.substr(0, first.find('=')), known));
  }
  if (known.empty()) throw KXUsageError("unexpected argument " + shown);
  throw KXUsageError(fmt::format("unknown verb {}, expected one of {}{}", shown,
                                 fmt::join(known, ", "), nearestHint(first, known)));
}

int run(int argc, char** argv, KXOutput& output, KXStop const& stop) {
  CLI::App app(
      "Watches and describes the keys and modules of a host: one of its own, or a robot's.", "kx");
  app.set_version_flag("--version", "kx " KX_VERSION, "print the version and exit");
  app.allow_extras();
  Arguments arguments;
  CLI::App* const watchVerb = addWatch(app, arguments);
  CLI::App* const listVerb = addList(app, arguments);
  CLI::App* const describeVerb = addDescribe(app, arguments);
  CLI::App* const hostVerb = addHost(app, arguments);
  CLI::App* const robotsVerb = addRobots(app, arguments);
  std::map<CLI::App const*, std::unique_ptr<KXBusArguments>> buses;
  for (CLI::App* verb : {watchVerb, listVerb, describeVerb, hostVerb, robotsVerb}) {
    using Means = KXBusArguments::Means;
    auto const means = verb == hostVerb     ? Means::Host
                       : verb == robotsVerb ? Means::WholeBus
                                            : Means::Robot;
    buses[verb] = std::make_unique<KXBusArguments>(*verb, means);
    verb->allow_extras();
    verb->footer(verb->get_footer() + kBusFooter + kFooter);
  }
  app.footer(kFooter);  // last, since verbs inherit it

  try {
    app.parse(argc, argv);
  } catch (CLI::CallForHelp const&) {
    output.write(app.help());
    return kOk;
  } catch (CLI::CallForVersion const& version) {
    output.write(std::string(version.what()) + '\n');
    return kOk;
  } catch (CLI::ArgumentMismatch const& error) {
    std::string const text = error.what();
    throw KXUsageError(forTerminal(text.substr(0, text.find(':'))) +
                       ": expected a value, got none");
  } catch (CLI::ParseError const& error) {
    throw KXUsageError(forTerminal(error.what()));
  }
  for (CLI::App const* verb : app.get_subcommands()) refuseRest(*verb);
  refuseRest(app);

  if (watchVerb->parsed()) {
    arguments.watch.periodMs = parsePeriodMs(arguments.period);
    if (watchVerb->count("--for") > 0) arguments.watch.duration = parseDuration(arguments.duration);
    arguments.watch.format = parseFormat(arguments.format);
    arguments.watch.bus = busOf(*buses[watchVerb]);
    if (arguments.watch.bus) refuseOnRobot(*watchVerb, {"--load", "--cycle"});
    if (arguments.watch.isShared && !arguments.watch.bus) {
      throw KXUsageError("--shared: expected a bus as well (--bus URL or KX_BUS), got none");
    }
    return watch(arguments.watch, output, stop);
  }
  if (listVerb->parsed()) {
    arguments.list.bus = busOf(*buses[listVerb]);
    if (arguments.list.bus) refuseOnRobot(*listVerb, {"--load"});
    return list(arguments.list, output, stop);
  }
  if (describeVerb->parsed()) {
    arguments.describe.bus = busOf(*buses[describeVerb]);
    if (arguments.describe.bus) refuseOnRobot(*describeVerb, {"--load"});
    return describe(arguments.describe, output, stop);
  }
  if (hostVerb->parsed()) {
    arguments.host.bus = neededBusOf(*buses[hostVerb], "nobody could reach the host");
    return host(arguments.host, stop);
  }
  if (robotsVerb->parsed()) {
    arguments.robots.listing = parseListing(arguments.listing);
    arguments.robots.bus = neededBusOf(*buses[robotsVerb], "robots are found on a bus");
    return robots(arguments.robots, output);
  }
  throw KXUsageError(
      "expected a verb: watch, list, describe, host or robots; kx --help tells more");
}

int runReportingErrors(int argc, char** argv) {
  if (fcntl(STDOUT_FILENO, F_GETFD) < 0) {
    // The next file that is opened would get its place.
    say("expected an open stdout, got a closed one");
    return kFailed;
  }
  // Likewise; what nobody wants to read is dropped.
  if (fcntl(STDERR_FILENO, F_GETFD) < 0) dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
  try {
    // Before any thread is made, so that signals wait for us and not for one of them.
    KXStop const stop;
    KXOutput output(STDOUT_FILENO, stop);
    int const exitCode = run(argc, argv, output, stop);
    return output.finish() ? exitCode : kFailed;
  } catch (KXUsageError const& error) {
    say(error.what());
    return kUsage;
  } catch (KXToolError const& error) {
    say(error.what());
    return error.exitCode();
  } catch (KXError const& error) {
    say(forTerminal(error.what()));
    return error.getKind() == KXError::Kind::TimedOut ? kTimeOut : kFailed;
  } catch (std::exception const& error) {
    // Modules and libraries speak here: their text may hold anything.
    say(forTerminal(error.what()));
    return kFailed;
  }
}

}  // namespace

}  // namespace KX::tool

int main(int argc, char** argv) {
  return KX::tool::runReportingErrors(argc, argv);
}
