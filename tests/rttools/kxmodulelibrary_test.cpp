#include <host/rttools/kxmodulelibrary.hpp>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

namespace fs = std::filesystem;

TEST(FindLibrary, FindsAPlainNameInTheLibFolderBesideTheProgramsFolder) {
  EXPECT_EQ(KX_LIB_DIR "/libkxvalue.so", findLibrary("kxvalue"));
}

TEST(FindLibrary, GivesFilesBackAsTheyAre) {
  for (std::string const file : {"./good", "/nonexistent/libgood.so", "libgood.so", "folder/"}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(file, findLibrary(file));
  }
}

TEST(FindLibrary, TellsWhereItLooked) {
  try {
    findLibrary("nothere");
    FAIL() << "found";
  } catch (KXError const& error) {
    EXPECT_EQ("no module library 'nothere', looked for '" KX_LIB_DIR "/libnothere.so'",
              error.getDescription());
    EXPECT_EQ("findLibrary", error.getMethodName());
  }
}

TEST(ModuleLibrary, ServesAHostOfAnotherMake) {
  auto const broker = KXBroker::createBroker("other");
  KXModuleLibrary const library(KX_TEST_LIBRARY_DIR "/good.so");

  library.createModule(broker);
  EXPECT_EQ(42, broker->getProxy("good", 0)->call<int>("twice", 21));

  broker->shutdown();
  library.closeModule();
}

TEST(ModuleLibrary, ThatCannotServeLeavesTheBrokerAsItWas) {
  auto const broker = KXBroker::createBroker("other");

  EXPECT_THROW(KXModuleLibrary(KX_TEST_LIBRARY_DIR "/returns3.so").createModule(broker), KXError);

  EXPECT_TRUE(broker->getModuleNames().empty());
}

}  // namespace
}  // namespace KX
