#include <host/rttools/kxmodulelibrary.hpp>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace KX
