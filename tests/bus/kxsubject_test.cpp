// Subjects of calls and events, both ways, and the names in them.
#include <host/bus/kxsubject.hpp>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace KX {
namespace {

std::vector<std::string> oddNames() {
  return {"KXMemory",
          "a.b",
          "a@b",
          "a@b.c.d",
          "*",
          ">",
          "a b",
          "",
          "%",
          "%41",
          "@find",
          "Grüße",
          std::string("\0\r\n", 3)};
}

TEST(Token, HoldsEachByteOfAName) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) all += static_cast<char>(byte);

  std::string const token = escapeToken(all);

  EXPECT_EQ(
      token.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_-%"),
      std::string::npos);
  EXPECT_EQ(token.size(), 64 + 3 * (256 - 64));
  EXPECT_EQ(unescapeToken(token), all);
  for (char const byte : all) {
    SCOPED_TRACE(static_cast<int>(byte));
    EXPECT_EQ(unescapeToken(escapeToken(std::string(1, byte))), std::string(1, byte));
  }
}

TEST(Token, IsKnown) {
  EXPECT_EQ(escapeToken("KXMemory_1-a"), "KXMemory_1-a");
  EXPECT_EQ(escapeToken("My Module.1@x"), "My%20Module%2E1%40x");
  EXPECT_EQ(escapeToken("*>%"), "%2A%3E%25");
  EXPECT_EQ(escapeToken("ü"), "%C3%BC");
  EXPECT_EQ(escapeToken(""), "%");
  EXPECT_EQ(unescapeToken("%"), "");
}

TEST(Token, IsRefusedIfNoNameIsWrittenSo) {
  for (char const* token : {"",    "a.b", "a b", "*",  ">",   "@at", "%2e", "%2E%2e", "%41", "%5F",
                            "%2D", "a%",  "%%",  "%2", "a%2", "%2G", "%G2", "%-1",    "% 1", "ü"}) {
    SCOPED_TRACE(token);
    EXPECT_EQ(unescapeToken(token), std::nullopt);
  }
  EXPECT_EQ(unescapeToken(std::string_view("a\0", 2)), std::nullopt);
}

TEST(Address, TellsQualifiedNamesFromOthers) {
  EXPECT_EQ(parseAddress("KXMemory"), (KXModuleAddress{"KXMemory"}));
  EXPECT_EQ(parseAddress("M@robot.1a2b"), (KXModuleAddress{"M", "robot", "1a2b"}));
  EXPECT_EQ(parseAddress("a@b@c.d"), (KXModuleAddress{"a@b", "c", "d"}));
  EXPECT_EQ(parseAddress("a.b@c.d"), (KXModuleAddress{"a.b", "c", "d"}));
  EXPECT_EQ(parseAddress("M@%2E.%20"), (KXModuleAddress{"M", "%2E", "%20"}));
  EXPECT_TRUE(parseAddress("M@u.n").isQualified());
  EXPECT_FALSE(parseAddress("M").isQualified());
}

TEST(Address, IsPlainForNamesThatOnlyLookQualified) {
  for (char const* name : {"", "@", "a@b", "a@", "a@.", "a@b.", "a@.c", "a@b.c.d", "a@b c.d",
                           "a@b.c d", "a@*.d", "a@b.>", "a@b.%2e", "b.c", "a@b.c@d", "a@b.c@"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(parseAddress(name), (KXModuleAddress{name}));
  }
}

TEST(Subjects, AreKnown) {
  KXSubjects const subjects("robot 1");
  KXModuleAddress const plain{"KXMemory"};
  KXModuleAddress const qualified{"My.Watcher", "viewer", "1a2b"};
  std::pair<std::string, char const*> const cases[] = {
      {subjects.call(plain, "getData"), "kx.robot%201.KXMemory.getData"},
      {subjects.call(plain, kFindMethod), "kx.robot%201.KXMemory.@find"},
      {subjects.call(plain, "a.b"), "kx.robot%201.KXMemory.a%2Eb"},
      {subjects.call(qualified, "onEvent"), "kx.robot%201.@at.viewer.1a2b.My%2EWatcher.onEvent"},
      {subjects.callFrom("viewer", "KXMemory", "subscribeToEvent"),
       "kx.robot%201.@from.viewer.KXMemory.subscribeToEvent"},
      {subjects.callsOf("My.Module"), "kx.robot%201.My%2EModule.*"},
      {subjects.callsFromOthersOf("KXMemory"), "kx.robot%201.@from.*.KXMemory.*"},
      {subjects.callsAt("viewer", "1a2b"), "kx.robot%201.@at.viewer.1a2b.*.*"},
      {subjects.events(plain), "kx.robot%201.@events.KXMemory"},
      {subjects.events(qualified), "kx.robot%201.@events.viewer.1a2b.My%2EWatcher"},
      {subjects.here(), "kx.robot%201.@here"},
      {subjects.claim("KXMemory"), "kx.robot%201.@claim.KXMemory"},
      {subjects.hello(), "kx.robot%201.@hello"},
  };
  for (auto const& [subject, expected] : cases) EXPECT_EQ(subject, expected);
}

TEST(Subjects, OfCallsSayWhatIsCalled) {
  for (std::string const& robot : oddNames()) {
    KXSubjects const subjects(robot);
    for (std::string const& module : oddNames()) {
      for (std::string const& method : oddNames()) {
        SCOPED_TRACE(robot + " / " + module + " / " + method);
        KXModuleAddress const plain{module};
        KXModuleAddress const qualified{module, "viewer", "1a2b"};
        EXPECT_EQ(subjects.parseCall(subjects.call(plain, method)),
                  (KXSubjects::Call{plain, method}));
        EXPECT_EQ(subjects.parseCall(subjects.call(qualified, method)),
                  (KXSubjects::Call{qualified, method}));
        EXPECT_EQ(subjects.parseCall(subjects.callFrom("viewer", module, method)),
                  (KXSubjects::Call{plain, method, "viewer"}));
      }
    }
  }
}

TEST(Subjects, ThatAreNoCallsAreRefused) {
  KXSubjects const subjects("r");
  for (char const* subject : {"",
                              "kx",
                              "kx.r",
                              "kx.r.",
                              "kx.r.M",
                              "kx.r.M.",
                              "kx.r..m",
                              "kx.r.M.m.",
                              "kx.r.M.m.x",
                              "kx.q.M.m",
                              "KX.r.M.m",
                              "kx.rr.M.m",
                              "kx.r.M.*",
                              "kx.r.>.m",
                              "kx.r.M.m m",
                              "kx.r.M.%40find",
                              "kx.r.M.@",
                              "kx.r.M.@%2e",
                              "kx.r.@M.m",
                              "kx.r.%4d.m",
                              "kx.r.@events.M",
                              "kx.r.@claim.M",
                              "kx.r.@hello",
                              "kx.r.@events.u.n.M",
                              "kx.r.@from.u.M",
                              "kx.r.@from..M.m",
                              "kx.r.@from.u.x.M.m",
                              "kx.r.@from.*.M.m",
                              "kx.r.@at.u.n.M",
                              "kx.r.@at.u..M.m",
                              "kx.r.@at..n.M.m",
                              "kx.r.@at.u.n.M.m.x",
                              "kx.r.@at.u.>.M.m",
                              "kx.r.@At.u.n.M.m"}) {
    SCOPED_TRACE(subject);
    EXPECT_EQ(subjects.parseCall(subject), std::nullopt);
  }
}

}  // namespace
}  // namespace KX
