// Headers, replies, errors, packs and descriptions: both ways, and what is refused.
#include <host/bus/kxwire.hpp>

#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/bus/hex.hpp"

namespace KX {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char const* kId = "0123456789abcdef";
constexpr char const* kOther = "fedcba9876543210";
constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

// ---- headers

TEST(Header, OfACallComesBack) {
  std::vector<std::uint64_t> many(KXCallId::kMaxLost);
  std::iota(many.begin(), many.end(), 1);
  for (KXCallId const& id :
       {KXCallId{kId, 1, 0}, KXCallId{kId, kLargest, kLargest}, KXCallId{kId, 7, 3, kOther},
        KXCallId{kId, 7, 3, "", {2}}, KXCallId{kId, kLargest, kLargest, kOther, {1, kLargest}},
        KXCallId{kId, 100, 99, kOther, many}}) {
    std::optional<KXCallId> const parsed = parseCallId(formatCallId(id));

    ASSERT_TRUE(parsed) << formatCallId(id);
    EXPECT_EQ(parsed->caller, id.caller);
    EXPECT_EQ(parsed->number, id.number);
    EXPECT_EQ(parsed->done, id.done);
    EXPECT_EQ(parsed->to, id.to);
    EXPECT_EQ(parsed->lost, id.lost);
  }
  EXPECT_EQ(formatCallId({kId, 7, 3}), "0123456789abcdef.7.3");
  EXPECT_EQ(formatCallId({kId, 7, 3, kOther}), "0123456789abcdef.7.3.fedcba9876543210");
  EXPECT_EQ(formatCallId({kId, 7, 3, kOther, {1, 3}}), "0123456789abcdef.7.3.fedcba9876543210.1.3");
  EXPECT_EQ(formatCallId({kId, 7, 3, "", {2}}), "0123456789abcdef.7.3..2");
}

TEST(Header, OfARepeatIsAPart) {
  EXPECT_EQ(parseFromPart("0"), 0U);
  EXPECT_EQ(parseFromPart("4294967295"), 4294967295U);
}

TEST(Header, OfAPartComesBack) {
  std::optional<KXPart> const parsed = parsePart(formatPart({4294967294, 4294967295}));

  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->index, 4294967294);
  EXPECT_EQ(parsed->count, 4294967295);
  EXPECT_EQ(formatPart({0, 3}), "0.3");
}

TEST(Header, OfAPackComesBack) {
  KXPackHeader const header{kId, 10, 4, 8, 7};

  std::optional<KXPackHeader> const parsed = parsePackHeader(formatPackHeader(header));

  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->epoch, header.epoch);
  EXPECT_EQ(parsed->first, header.first);
  EXPECT_EQ(parsed->count, header.count);
  EXPECT_EQ(parsed->holeFrom, header.holeFrom);
  EXPECT_EQ(parsed->oldest, header.oldest);
  EXPECT_EQ(formatPackHeader(header), "0123456789abcdef.10.4.8.7");
}

TEST(Header, OfAnAcknowledgementComesBack) {
  for (bool const isGap : {false, true}) {
    KXPackAck const ack{kId, kLargest, isGap};

    std::optional<KXPackAck> const parsed = parsePackAck(formatPackAck(ack));

    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->epoch, ack.epoch);
    EXPECT_EQ(parsed->next, ack.next);
    EXPECT_EQ(parsed->isGap, isGap);
  }
  EXPECT_EQ(formatPackAck({kId, 14, true}), "0123456789abcdef.14.1");
}

TEST(Header, OfWhatWasGivenUpComesBack) {
  KXPackAck const ack{kId, 14, false, {7, kLargest}};

  KXBusHeaders const headers = packAckHeaders(ack);
  std::optional<KXPackAck> const parsed = packAckOf({.headers = headers});

  EXPECT_EQ(headers, (KXBusHeaders{{"Kx-Ack", "0123456789abcdef.14.0"},
                                   {"Kx-Unhandled", "7.18446744073709551615"}}));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->next, 14u);
  EXPECT_EQ(parsed->unhandled.from, 7u);
  EXPECT_EQ(parsed->unhandled.count, kLargest);
}

TEST(Header, OfWhatWasGivenUpIsMissingWhereNothingWas) {
  EXPECT_EQ(packAckHeaders({kId, 14, false, {7, 0}}).size(), 1u);

  for (char const* const text : {"", "1", "0.1", "1.0", "1.1.1", "x.1"}) {
    SCOPED_TRACE(text);
    auto const ack =
        packAckOf({.headers = {{"Kx-Ack", "0123456789abcdef.14.0"}, {"Kx-Unhandled", text}}});
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->unhandled.count, 0u);
  }
  EXPECT_FALSE(packAckOf({.headers = {{"Kx-Unhandled", "1.1"}}}));
}

// What no number of a header may look like.
std::vector<std::string> badNumbers() {
  return {"",
          "+1",
          "-1",
          " 1",
          "1 ",
          "01",
          "00",
          "0x1",
          "1e3",
          "1,0",
          "a",
          "٣",
          "1_0",
          "18446744073709551616",
          "99999999999999999999",
          std::string("1\0", 2)};
}

TEST(Header, WithABadNumberIsRefused) {
  std::string const id = kId;
  for (std::string const& bad : badNumbers()) {
    SCOPED_TRACE("'" + bad + "'");
    EXPECT_FALSE(parseCallId(id + "." + bad + ".0"));
    EXPECT_FALSE(parseCallId(id + ".1." + bad));
    EXPECT_FALSE(parseCallId(id + ".9.8..1." + bad));
    EXPECT_FALSE(parseFromPart(bad));
    EXPECT_FALSE(parsePart(bad + ".3"));
    EXPECT_FALSE(parsePart("0." + bad));
    EXPECT_FALSE(parsePackHeader(id + "." + bad + ".1.1.1"));
    EXPECT_FALSE(parsePackHeader(id + ".1." + bad + ".1.1"));
    EXPECT_FALSE(parsePackHeader(id + ".1.1." + bad + ".1"));
    EXPECT_FALSE(parsePackHeader(id + ".1.1.1." + bad));
    EXPECT_FALSE(parsePackAck(id + "." + bad + ".0"));
    EXPECT_FALSE(parseUnhandled(bad + ".1"));
    EXPECT_FALSE(parseUnhandled("1." + bad));
  }
}

TEST(Header, WithABadIdIsRefused) {
  for (std::string const id :
       {"0123456789ABCDEF", "0123456789abcde", "0123456789abcdef0", "0123456789abcdeg",
        "0x23456789abcdef", " 123456789abcdef", "0123456789abcd\xc3\xa9"}) {
    SCOPED_TRACE(id);
    EXPECT_FALSE(parseCallId(id + ".1.0"));
    EXPECT_FALSE(parseCallId(std::string(kId) + ".1.0." + id));
    EXPECT_FALSE(parsePackHeader(id + ".1.1.1.1"));
    EXPECT_FALSE(parsePackAck(id + ".1.0"));
  }
  EXPECT_FALSE(parseCallId(".1.0"));
  EXPECT_FALSE(parsePackHeader(".1.1.1.1"));
  EXPECT_FALSE(parsePackAck(".1.0"));
}

TEST(Header, WithTooFewOrTooManyFieldsIsRefused) {
  std::string const id = kId;
  for (std::string const& text :
       {std::string(), id, id + ".", id + "..", id + ".1", id + ".1.0.", id + ".1.0.0"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(parseCallId(text));
    EXPECT_FALSE(parsePackAck(text));
    EXPECT_FALSE(parsePackHeader(text));
  }
  for (std::string const& text : {std::string(), id, std::string("."), id + ".", id + ".1.",
                                  id + ".1.1", std::string("1"), std::string("0.1.1")}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(parsePart(text));
  }
  EXPECT_FALSE(parsePackHeader(id + ".1.1.1.1.1"));
}

TEST(Header, WithNumbersThatCannotBeIsRefused) {
  std::string const id = kId;
  EXPECT_FALSE(parseCallId(id + ".0.0")) << "calls count from 1";
  EXPECT_FALSE(parseFromPart("4294967296"));
  EXPECT_FALSE(parseCallId(id + ".9.8..0"));
  EXPECT_FALSE(parseCallId(id + ".9.8..9")) << "what was given up is done";
  EXPECT_FALSE(parseCallId(id + ".9.8..3.3"));
  EXPECT_FALSE(parseCallId(id + ".9.8..3.2"));
  EXPECT_FALSE(parseCallId(id + ".9.8.."));
  EXPECT_FALSE(parseCallId(id + ".9.8..1.")) << "one way to be written";
  std::string tooMany = id + ".100.99.";
  for (std::size_t i = 0; i <= KXCallId::kMaxLost; ++i) tooMany += "." + std::to_string(i + 1);
  EXPECT_FALSE(parseCallId(tooMany));
  EXPECT_FALSE(parsePart("0.0"));
  EXPECT_FALSE(parsePart("3.3"));
  EXPECT_FALSE(parsePart("0.4294967296"));
  EXPECT_FALSE(parsePackHeader(id + ".0.1.0.0")) << "notifications count from 1";
  EXPECT_FALSE(parsePackHeader(id + ".1.4294967296.1.1"));
  EXPECT_FALSE(parsePackHeader(id + ".5.1.6.5")) << "the hole is before the first";
  EXPECT_FALSE(parsePackHeader(id + ".5.1.0.5"));
  EXPECT_FALSE(parsePackHeader(id + ".5.1.5.6")) << "what comes may still come";
  EXPECT_FALSE(parsePackHeader(id + ".5.1.5.0"));
  EXPECT_FALSE(parsePackHeader(id + ".18446744073709551615.1.1.1")) << "numbers end";
  EXPECT_FALSE(parsePackAck(id + ".1.2"));
  EXPECT_FALSE(parsePackAck(id + ".1.true"));
}

// ---- replies

std::string replyOf(std::string_view payload, std::string_view code) {
  try {
    decodeReply(payload, code);
  } catch (KXError const& error) {
    return error.getDescription();
  }
  return "none";
}

TEST(Reply, WithAResultComesBack) {
  KXValue const result = KXValue::arrayOf(1, "a");

  EXPECT_EQ(toHex(encodeResult(result)), "92009201a161");  // as python3-msgpack packs it
  EXPECT_EQ(decodeReply(encodeResult(result), ""), result);
  EXPECT_EQ(decodeReply(encodeResult(KXValue()), ""), KXValue());
}

TEST(Reply, WithAnErrorIsThatError) {
  struct Case {
    KXError::Kind kind;
    char const* code;
  };
  for (auto const& [kind, code] :
       {Case{KXError::Kind::Failed, "400"}, Case{KXError::Kind::NotFound, "404"},
        Case{KXError::Kind::Refused, "403"}, Case{KXError::Kind::TimedOut, "504"},
        Case{KXError::Kind::Disconnected, "503"}}) {
    SCOPED_TRACE(code);
    KXError const error("KXMemory", "getData", "unknown\nkey 'ä'", "kxmemory/x", -12, kind);
    KXBusMessage const reply{.headers = errorHeaders(error)};
    EXPECT_EQ(reply.header(kErrorCodeHeader), code);

    try {
      decodeReply(encodeError(error), reply.header(kErrorCodeHeader));
      FAIL() << "no error";
    } catch (KXError const& thrown) {
      EXPECT_EQ(thrown.getModuleName(), error.getModuleName());
      EXPECT_EQ(thrown.getMethodName(), error.getMethodName());
      EXPECT_EQ(thrown.getDescription(), error.getDescription());
      EXPECT_EQ(thrown.getFileName(), error.getFileName());
      EXPECT_EQ(thrown.getLine(), error.getLine());
      EXPECT_EQ(thrown.getKind(), kind);
    }
  }
}

TEST(Reply, WithAnErrorIsTheBytesThatOthersPack) {
  EXPECT_EQ(toHex(encodeError(KXError("KXMemory", "getData", "unknown", "kxmemory/x", 12))),
            "920195a84b584d656d6f7279a767657444617461a7756e6b6e6f776eaa6b786d656d6f72792f780c");
}

TEST(Reply, WithAnErrorOfNoKnownKindFailed) {
  std::string const payload = encodeError(KXError("M", "m", "text", "f", 0));
  for (char const* code : {"", "500", "4044", "abc"}) {
    SCOPED_TRACE(code);
    try {
      decodeReply(payload, code);
      FAIL() << "no error";
    } catch (KXError const& error) {
      EXPECT_EQ(error.getDescription(), "text");
      EXPECT_EQ(error.getKind(), KXError::Kind::Failed);
    }
  }
}

TEST(Reply, ThatIsNoneIsRefused) {
  struct Case {
    char const* name;
    char const* bytes;
    char const* code;
    char const* refusal;
  };
  Case const cases[] = {
      {"nothing", "", "", "expected more bytes"},
      {"no array", "07", "", "expected an array of 2, got int"},
      {"too short", "9100", "", "expected an array of 2, got array of 1"},
      {"too long", "930000c0", "", "expected an array of 2, got array of 3"},
      {"no outcome", "92c2c0", "", "expected int as element 0, got bool"},
      {"unknown outcome", "9202c0", "", "got 2 with error code ''"},
      {"result with an error code", "9200c0", "404", "got 0 with error code '404'"},
      {"error that is a text", "9201a161", "400", "expected array as element 1, got string"},
      {"error too short", "920194a0a0a0a0", "400", "expected an array of 5, got array of 4"},
      {"error without module", "920195c0a0a0a000", "400", "expected string as element 0"},
      {"error without description", "920195a0a001a000", "400", "expected string as element 2"},
      {"error without line", "920195a0a0a0a0c0", "400", "expected int as element 4"},
  };
  for (auto const& [name, bytes, code, refusal] : cases) {
    SCOPED_TRACE(name);
    EXPECT_THAT(replyOf(fromHex(bytes), code), HasSubstr(refusal));
  }
}

TEST(ErrorHeaders, HoldOneLine) {
  auto const lineOf = [](std::string const& text) {
    return std::string(
        KXBusMessage{.headers = errorHeaders(KXError("M", "m", text, "f", 0))}.header(
            kErrorTextHeader));
  };

  EXPECT_EQ(lineOf("plain"), "plain");
  EXPECT_EQ(lineOf("two\r\nlines\tand\x7f" + std::string(1, '\0')), "two  lines and  ");
  EXPECT_EQ(lineOf(std::string(512, 'x')), std::string(512, 'x'));
  EXPECT_EQ(lineOf(std::string(513, 'x')), std::string(512, 'x'));
  EXPECT_EQ(lineOf(std::string(511, 'x') + "ü"), std::string(511, 'x')) << "no half characters";
  EXPECT_EQ(lineOf(std::string(510, 'x') + "üü"), std::string(510, 'x') + "ü");
  EXPECT_EQ(lineOf(repeated("\x80", 600)), "") << "no text at all";
}

// ---- packs

TEST(Pack, ComesBack) {
  std::string bytes;
  std::vector<KXNotification> const sent = {
      {"onEvent", KXValue::arrayOf("Host/Cpu/Load", 0.5, "KXMemory")},
      {"onEvent", KXValue::arrayOf("Host/Cpu/Load", 0.75, "KXMemory")},
      {"onEvent", KXValue::arrayOf("Host/Cpu", KXValue::arrayOf("Host/Cpu"), "KXMemor")},
      {"onEvents", KXValue::arrayOf("Host/Cpu", KXValue::arrayOf("Host/Cpu"))},
      {"", KXValue::arrayOf()},
      {"onEvent", KXValue::arrayOf(KXValue::binary("Host/Cpu"), "onEvent")},
      {"onEvent", KXValue::arrayOf("Host/Cpu", "onEvent")}};
  for (KXNotification const& each : sent) appendNotification(bytes, each.method, each.arguments);

  std::vector<KXNotification> const received =
      decodePack(bytes, static_cast<std::uint32_t>(sent.size()));

  ASSERT_EQ(received.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(received[i].method, sent[i].method);
    EXPECT_EQ(received[i].arguments, sent[i].arguments);
  }
}

TEST(Pack, IsTheBytesThatOthersPack) {
  std::string bytes;

  appendNotification(bytes, "updateEvent", KXValue::arrayOf("K", 1));

  EXPECT_EQ(toHex(bytes), "92ab7570646174654576656e7492a14b01");
}

TEST(Pack, OfNoneIsEmpty) {
  EXPECT_THAT(decodePack("", 0), IsEmpty());
}

TEST(Pack, SharesEqualTextsThatFollowEachOther) {
  std::string bytes;
  for (char const* key : {"a", "a", "b"}) {
    appendNotification(bytes, "m", KXValue::arrayOf(key, "KXMemory"));
  }

  std::vector<KXNotification> pack = decodePack(bytes, 3);

  EXPECT_TRUE(pack[0].arguments[0].sharesBlockWith(pack[1].arguments[0]));
  EXPECT_FALSE(pack[1].arguments[0].sharesBlockWith(pack[2].arguments[0]));
  EXPECT_TRUE(pack[0].arguments[1].sharesBlockWith(pack[2].arguments[1]));
}

TEST(Pack, ThatIsNoneIsRefused) {
  struct Case {
    char const* name;
    std::string bytes;
    std::uint32_t count;
    char const* refusal;
  };
  std::string const event = "92a16d9101";
  Case const cases[] = {
      {"fewer than promised", event, 2, "expected 2 notifications, got 5 bytes"},
      {"fewer, with room", event + event + "92", 3, "at byte 10"},
      {"many more promised", event, 4294967295, "expected 4294967295 notifications"},
      {"more than promised", event + event, 1, "expected the end, got 5 bytes more, at byte 5"},
      {"bytes for none", "c0", 0, "expected the end, got 1 bytes more"},
      {"no array", "a3616263", 1, "expected an array, got string, at byte 0"},
      {"no arguments", "91a3616263", 1, "as notification 0, got an array of 1"},
      {"one more", "93a16d91c001", 1, "as notification 0, got an array of 3"},
      {"method is no text", event + "9207" + "9101", 2, "as notification 1, got [int, array of 1]"},
      {"arguments are no array", event + "92a16d" + "a161", 2, "1, got [string, string]"},
      {"cut", event + "92a16d91a3", 2, "expected more bytes"},
      {"array of 4G", "92a16dddffffffff", 1, "expected at most"},
  };
  for (auto const& [name, hex, count, refusal] : cases) {
    SCOPED_TRACE(name);
    try {
      decodePack(fromHex(hex), count);
      FAIL() << "not refused";
    } catch (KXError const& error) {
      EXPECT_THAT(error.getDescription(), HasSubstr(refusal));
    }
  }
}

TEST(Pack, IsLeftAsItWasWhenANotificationCannotBeAppended) {
  KXValue deep = KXValue::arrayOf();
  for (int i = 0; i < 40; ++i) deep = KXValue::arrayOf(deep);
  std::string bytes;
  appendNotification(bytes, "m", KXValue::arrayOf(1));
  std::string const before = bytes;

  EXPECT_THROW(appendNotification(bytes, "m", deep), KXError);

  EXPECT_EQ(bytes, before);
}

// ---- descriptions

KXModuleInfo someModule() {
  KXModuleInfo info{"KXMemory", "holds data", "1.2", {}};
  KXMethodInfo getData{"getData", "KXMemory", "reads", {}, {}, {}};
  getData.parameters.push_back({"", "key", "which", "string", false});
  getData.parameters.push_back({"\"all\"", "what", "how much", "value", true});
  getData.result = {"", "", "the data", "value", false};
  info.methods = {getData, KXMethodInfo{"ping", "KXMemory", "", {}, {}, {}}};
  return info;
}

void expectEqual(KXParameterInfo const& parameter, KXParameterInfo const& expected) {
  EXPECT_EQ(parameter.defaultText, expected.defaultText);
  EXPECT_EQ(parameter.name, expected.name);
  EXPECT_EQ(parameter.description, expected.description);
  EXPECT_EQ(parameter.type, expected.type);
  EXPECT_EQ(parameter.isOptional, expected.isOptional);
}

TEST(Description, ComesBack) {
  KXModuleInfo const info = someModule();

  KXModuleInfo const received = moduleInfoFromValue(decodeValue(encodeValue(toValue(info))));

  EXPECT_EQ(received.name, info.name);
  EXPECT_EQ(received.description, info.description);
  EXPECT_EQ(received.version, info.version);
  ASSERT_EQ(received.methods.size(), info.methods.size());
  for (std::size_t i = 0; i < info.methods.size(); ++i) {
    KXMethodInfo const& method = received.methods[i];
    KXMethodInfo const& expected = info.methods[i];
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(method.name, expected.name);
    EXPECT_EQ(method.moduleName, expected.moduleName);
    EXPECT_EQ(method.description, expected.description);
    ASSERT_EQ(method.parameters.size(), expected.parameters.size());
    for (std::size_t j = 0; j < expected.parameters.size(); ++j) {
      expectEqual(method.parameters[j], expected.parameters[j]);
    }
    expectEqual(method.result, expected.result);
    EXPECT_EQ(method.functor, nullptr);
  }
}

TEST(Description, OfAnotherShapeIsRefused) {
  KXValue const sound = toValue(someModule());
  struct Case {
    char const* name;
    void (*spoil)(KXValue& value);
  };
  Case const cases[] = {
      {"no array",
       [](KXValue& value) {
         value = 1;
       }},
      {"too short",
       [](KXValue& value) {
         value.arraySetSize(3);
       }},
      {"too long",
       [](KXValue& value) {
         value.arraySetSize(5);
       }},
      {"name",
       [](KXValue& value) {
         value[0] = 1;
       }},
      {"description",
       [](KXValue& value) {
         value[1] = KXValue();
       }},
      {"version",
       [](KXValue& value) {
         value[2] = 1.2;
       }},
      {"methods",
       [](KXValue& value) {
         value[3] = "none";
       }},
      {"method",
       [](KXValue& value) {
         value[3][1] = "ping";
       }},
      {"method's size",
       [](KXValue& value) {
         value[3][1].arraySetSize(4);
       }},
      {"method's name",
       [](KXValue& value) {
         value[3][1][0] = 1;
       }},
      {"method's module",
       [](KXValue& value) {
         value[3][1][1] = 1;
       }},
      {"method's description",
       [](KXValue& value) {
         value[3][1][2] = 1;
       }},
      {"parameters",
       [](KXValue& value) {
         value[3][0][3] = 1;
       }},
      {"parameter",
       [](KXValue& value) {
         value[3][0][3][1] = "what";
       }},
      {"parameter's size",
       [](KXValue& value) {
         value[3][0][3][1].arraySetSize(6);
       }},
      {"parameter's name",
       [](KXValue& value) {
         value[3][0][3][1][0] = 1;
       }},
      {"parameter's type",
       [](KXValue& value) {
         value[3][0][3][1][1] = 5;
       }},
      {"parameter's description",
       [](KXValue& value) {
         value[3][0][3][1][2] = 1;
       }},
      {"whether it is optional",
       [](KXValue& value) {
         value[3][0][3][1][3] = 1;
       }},
      {"parameter's default",
       [](KXValue& value) {
         value[3][0][3][1][4] = 1;
       }},
      {"result",
       [](KXValue& value) {
         value[3][0][4] = KXValue();
       }},
  };
  for (auto const& [name, spoil] : cases) {
    SCOPED_TRACE(name);
    KXValue value = sound;
    spoil(value);

    try {
      moduleInfoFromValue(value);
      ADD_FAILURE() << "not refused";
    } catch (KXError const& error) {
      EXPECT_THAT(error.getDescription(), HasSubstr("expected "));
      EXPECT_THAT(error.getDescription(), HasSubstr(", got "));
    }
  }
}

}  // namespace
}  // namespace KX
