#include <host/rttools/kxhost.hpp>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <ka/log.hpp>
#include <kxcommon/kxbrokermanager.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/fakememory.hpp>
#include <tests/support/logcapture.hpp>

namespace KX {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::string library(std::string const& name) {
  return std::string(KX_TEST_LIBRARY_DIR) + "/" + name + ".so";
}

/// A host, what the libraries of the test tell in the log, and what the host complains of.
class Host : public ::testing::Test {
 protected:
  Host() { mHost.emplace(KXHost::Options{.name = "test"}); }

  std::string failureOfLoading(std::string const& path) {
    try {
      mHost->loadModule(path);
    } catch (KXError const& error) {
      EXPECT_EQ("KXHost", error.getModuleName());
      EXPECT_EQ("loadModule", error.getMethodName());
      return error.getDescription();
    }
    return "no failure";
  }
  std::vector<std::string> moduleNames() { return mHost->getBroker()->getModuleNames(); }
  int twice(std::string const& module, int number) {
    return mHost->getBroker()->getProxy(module, 0)->call<int>("twice", number);
  }

  LogCapture mTold{"testmodule"};
  LogCapture mErrors{"KXHost"};
  std::optional<KXHost> mHost;
};

TEST_F(Host, HasALauncherAndAStore) {
  EXPECT_THAT(moduleNames(), ElementsAre("KXLauncher", "KXMemory"));
  EXPECT_EQ("test", mHost->getBroker()->getName());
}

TEST_F(Host, HasTheHardwareCycleOnRequest) {
  KXHost const host({.name = "paced", .withVsm = true});

  EXPECT_THAT(host.getBroker()->getModuleNames(), ElementsAre("KXLauncher", "KXMemory", "VSM"));
}

TEST_F(Host, GoesWithoutItsOwnStoreOrLauncherOnRequest) {
  struct {
    KXHost::Options options;
    std::vector<std::string> modules;
  } const variants[] = {
      {{.name = "no store", .withStore = false}, {"KXLauncher"}},
      {{.name = "no launcher", .withLauncher = false}, {"KXMemory"}},
      {{.name = "neither", .withLauncher = false, .withStore = false}, {}},
      {{.name = "cycle only", .withLauncher = false, .withStore = false, .withVsm = true}, {"VSM"}},
  };
  for (auto const& variant : variants) {
    SCOPED_TRACE(variant.options.name);
    KXHost const host(variant.options);

    EXPECT_EQ(host.getBroker()->getModuleNames(), variant.modules);
  }
}

TEST_F(Host, LetsAnotherStoreStandInForItsOwn) {
  KXHost host({.name = "stand-in", .withStore = false});

  auto const store = KXModule::createModule<FakeMemory>(host.getBroker());
  store->set("key", "Data", 5);

  auto const proxy = host.getBroker()->getProxy("KXMemory", 0);
  EXPECT_EQ(proxy->call<KXValue>("getData", std::string("key")), KXValue(5));
}

TEST_F(Host, HasALauncherThatKnowsItsModules) {
  auto const launcher = mHost->getBroker()->getProxy("KXLauncher", 0);

  EXPECT_TRUE(launcher->call<bool>("isModulePresent", std::string("KXMemory")));
  EXPECT_FALSE(launcher->call<bool>("isModulePresent", std::string("VSM")));
}

TEST_F(Host, HasABrokerWithAManager) {
  EXPECT_EQ(KXBrokerManager::getInstance(), mHost->getBroker()->getBrokerManager().lock());
}

TEST_F(Host, LoadsALibraryAndServesItsModule) {
  mHost->loadModule(library("good"));

  EXPECT_THAT(moduleNames(), ElementsAre("KXLauncher", "KXMemory", "good"));
  EXPECT_EQ(42, twice("good", 21));
}

TEST_F(Host, LoadsFromARelativePath) {
  fs::path const former = fs::current_path();
  fs::current_path(KX_TEST_LIBRARY_DIR);

  std::string const failure = failureOfLoading("good.so");
  fs::current_path(former);

  EXPECT_EQ("no failure", failure);
}

TEST_F(Host, ShutsDownInReverseOrderAndClosesTheLibrariesLast) {
  mHost->loadModule(library("good"));
  mHost->loadModule(library("second"));
  mTold.clear();

  mHost->shutdown();

  EXPECT_THAT(mTold.texts(), ElementsAre("exit of second", "destroyed second", "exit of good",
                                         "destroyed good", "closed second", "closed good"));
  EXPECT_THAT(moduleNames(), IsEmpty());
}

TEST_F(Host, ShutsDownOnce) {
  mHost->loadModule(library("good"));
  mHost->shutdown();
  mTold.clear();

  mHost->shutdown();
  mHost.reset();

  EXPECT_THAT(mTold.texts(), IsEmpty());
}

TEST_F(Host, ShutsDownWhenItIsDestroyed) {
  mHost->loadModule(library("good"));
  mTold.clear();

  mHost.reset();

  EXPECT_THAT(mTold.texts(), ElementsAre("exit of good", "destroyed good", "closed good"));
}

TEST_F(Host, KeepsLibrariesLoaded) {
  mHost->loadModule(library("good"));
  failureOfLoading(library("throwskxerror"));
  mHost.reset();

  for (auto const* name : {"good", "throwskxerror"}) {
    SCOPED_TRACE(name);
    void* const handle = ::dlopen(library(name).c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(nullptr, handle);
    if (handle != nullptr) ::dlclose(handle);
  }
}

TEST_F(Host, LoadsALibraryAgainInAnotherHost) {
  mHost->loadModule(library("good"));
  mHost.emplace(KXHost::Options{.name = "next"});

  mHost->loadModule(library("good"));

  EXPECT_EQ(6, twice("good", 3));
}

TEST_F(Host, RefusesTheSameModuleTwiceAndKeepsTheFirst) {
  mHost->loadModule(library("good"));

  std::string const failure = failureOfLoading(library("good"));

  EXPECT_THAT(failure, HasSubstr("it threw a KXError"));
  EXPECT_THAT(failure, HasSubstr("'good'"));
  EXPECT_EQ(42, twice("good", 21));
  mTold.clear();
  mHost->shutdown();
  EXPECT_THAT(mTold.texts(), ElementsAre("exit of good", "destroyed good", "closed good"));
}

TEST_F(Host, SaysWhatIsWrongWithALibrary) {
  struct Row {
    std::string name;
    std::string expected;
  };
  std::string const noEntryPoint =
      "expected the entry points '_createModule' and '_closeModule', but it has no ";
  Row const rows[] = {
      {"missing", "expected a module library, but there is no such file"},
      {"noentrypoint", noEntryPoint + "'_createModule'"},
      {"noclose", noEntryPoint + "'_closeModule'"},
      {"unresolved",
       "expected a library with all its symbols resolved, but it has a fault: "
       "undefined symbol: missingFunction"},
      {"throwskxerror",
       "expected '_createModule' to return 0, but it threw a KXError of 'throwskxerror', 'init': "
       "no such device"},
      {"throwsstd",
       "expected '_createModule' to return 0, but it threw a std::exception: no such device"},
      {"throwsint",
       "expected '_createModule' to return 0, but it threw something that is no std::exception"},
      {"returns3", "expected '_createModule' to return 0, but it returned 3"},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.name);

    EXPECT_EQ("cannot load '" + library(row.name) + "': " + row.expected,
              failureOfLoading(library(row.name)));
  }
}

TEST_F(Host, SaysWhatIsWrongWithAFileThatIsNoLibrary) {
  fs::path const folder = fs::path(::testing::TempDir()) / ("host" + std::to_string(::getpid()));
  fs::create_directories(folder);
  std::ofstream(folder / "text.so") << std::string(5000, 'x');
  std::ofstream(folder / "short.so") << "x";
  std::string const fault =
      "': expected a library with all its symbols resolved, but it has a "
      "fault: ";

  for (auto const* name : {"text.so", "short.so", "."}) {
    SCOPED_TRACE(name);
    std::string const path = (folder / name).string();
    std::string const failure = failureOfLoading(path);
    EXPECT_THAT(failure, StartsWith("cannot load '" + path + fault));
    EXPECT_GT(failure.size(), ("cannot load '" + path + fault).size());
  }
  fs::remove_all(folder);
}

TEST_F(Host, RefusesALibraryThatIsCutOffWhereverItIs) {
  fs::path const path =
      fs::path(::testing::TempDir()) / ("host" + std::to_string(::getpid()) + "cut.so");
  auto const whole = fs::file_size(library("good"));
  std::string const start = "cannot load '" + path.string() + "': expected a";
  for (auto const size : {std::uintmax_t{0}, std::uintmax_t{20}, std::uintmax_t{64},
                          std::uintmax_t{100}, std::uintmax_t{1000}, std::uintmax_t{4096},
                          whole / 4, whole / 2, whole * 3 / 4, whole - 4096, whole - 1}) {
    SCOPED_TRACE(size);
    fs::copy_file(library("good"), path, fs::copy_options::overwrite_existing);
    fs::resize_file(path, size);

    std::string const failure = failureOfLoading(path.string());

    if (size < 64) {  // Less than the header: the system's own words.
      EXPECT_THAT(failure, StartsWith(start + " library with all its symbols resolved, but it"));
    } else {
      EXPECT_EQ(start + " whole library, but it is cut off: by its headers it has " +
                    std::to_string(whole) + " bytes, the file has " + std::to_string(size),
                failure);
    }
  }
  fs::remove(path);
}

TEST_F(Host, SaysThatAnEmptyPathIsNoFile) {
  EXPECT_EQ("cannot load '': expected a module library, but there is no such file",
            failureOfLoading(""));
}

TEST_F(Host, IsAsBeforeAfterEachFailure) {
  for (auto const* name : {"missing", "noentrypoint", "noclose", "unresolved", "throwskxerror",
                           "throwsstd", "throwsint", "returns3"}) {
    SCOPED_TRACE(name);
    failureOfLoading(library(name));
    EXPECT_THAT(moduleNames(), ElementsAre("KXLauncher", "KXMemory"));
  }

  mHost->loadModule(library("good"));
  EXPECT_EQ(42, twice("good", 21));
  mTold.clear();
  mHost->shutdown();
  EXPECT_THAT(mTold.texts(), ElementsAre("exit of good", "destroyed good", "closed good"));
}

TEST_F(Host, DestroysWhatAFailedLibraryHadPublishedLastFirst) {
  failureOfLoading(library("returns3"));

  EXPECT_THAT(mTold.texts(), ElementsAre("made first of two", "made second of two",
                                         "destroyed second of two", "destroyed first of two"));
}

TEST_F(Host, LogsALibraryThatDoesNotCloseWellAndClosesTheOthers) {
  mHost->loadModule(library("good"));
  mHost->loadModule(library("closefails"));
  mHost->loadModule(library("closethrows"));

  mHost->shutdown();

  std::string const expected = "': expected '_closeModule' to return 0, but it ";
  auto const errors = mErrors.lines();
  ASSERT_EQ(2U, errors.size());
  EXPECT_EQ("module library '" + library("closethrows") + expected +
                "threw a std::exception: cannot close",
            errors[0].text);
  EXPECT_EQ("module library '" + library("closefails") + expected + "returned 4", errors[1].text);
  EXPECT_EQ(ka::log::Error, errors[0].level);
  EXPECT_EQ("closed good", mTold.texts().back());
}

TEST_F(Host, RefusesToLoadAfterShutdown) {
  mHost->shutdown();

  EXPECT_THAT(failureOfLoading(library("good")), HasSubstr("shut down"));
}

}  // namespace
}  // namespace KX
