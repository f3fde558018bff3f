#include <host/bus/kxwire.hpp>

#include <algorithm>
#include <array>
#include <utility>

#include "host/bus/kxmsgpack.hpp"

namespace KX {

namespace {

[[noreturn]] void fail(char const* method, std::string const& text) {
  throw KXError("KXBus", method, text, "bus/kxwire", 0);
}

// ---- what comes in messages that are values themselves

std::string describe(KXValue const& value) {
  std::string const type = KXValue::TypeToString(value.getType());
  if (value.getType() != KXValue::TypeArray) return type;
  return type + " of " + std::to_string(value.getSize());
}

// Takes the elements of an array that is part of a message one after another, and knows what to say
// if they are not what is expected.
class Fields {
 public:
  Fields(char const* method, KXValue const& array, int size) : mMethod(method), mArray(array) {
    if (array.getType() == KXValue::TypeArray && array.getSize() == size) return;
    fail(mMethod, "expected an array of " + std::to_string(size) + ", got " + describe(array));
  }
  KXValue const& value() { return mArray[mNext++]; }
  std::string const& text() {
    return static_cast<std::string const&>(xExpect(KXValue::TypeString));
  }
  int integer() { return static_cast<int>(xExpect(KXValue::TypeInt)); }
  bool boolean() { return static_cast<bool>(xExpect(KXValue::TypeBool)); }
  KXValue const& array() { return xExpect(KXValue::TypeArray); }

 private:
  KXValue const& xExpect(KXValue::Type type) {
    KXValue const& found = value();
    if (found.getType() == type) return found;
    fail(mMethod, "expected " + KXValue::TypeToString(type) + " as element " +
                      std::to_string(mNext - 1) + ", got " + describe(found));
  }

  char const* const mMethod;
  KXValue const& mArray;
  int mNext = 0;
};

// ---- headers

template <std::size_t N>
std::optional<std::array<std::string_view, N>> split(std::string_view text) {
  std::array<std::string_view, N> fields;
  for (std::size_t i = 0; i < N; ++i) {
    std::size_t const dot = text.find('.');
    if ((dot == std::string_view::npos) != (i == N - 1)) return std::nullopt;
    fields[i] = text.substr(0, dot);
    text.remove_prefix(std::min(text.size(), fields[i].size() + 1));
  }
  return fields;
}

// A number has one way to be written: without sign, without zeros before it.
template <class T>
bool parseNumber(std::string_view text, T& number) {
  if (text.empty() || (text.size() > 1 && text.front() == '0')) return false;
  number = 0;
  for (char const c : text) {
    if (c < '0' || c > '9') return false;
    if (__builtin_mul_overflow(number, T{10}, &number) ||
        __builtin_add_overflow(number, static_cast<T>(c - '0'), &number)) {
      return false;
    }
  }
  return true;
}

struct ErrorCode {
  KXError::Kind kind;
  char const* code;
};
constexpr ErrorCode kErrorCodes[] = {{KXError::Kind::Failed, "400"},
                                     {KXError::Kind::NotFound, "404"},
                                     {KXError::Kind::Refused, "403"},
                                     {KXError::Kind::TimedOut, "504"},
                                     {KXError::Kind::Disconnected, "503"}};

char const* codeOf(KXError::Kind kind) {
  return std::ranges::find(kErrorCodes, kind, &ErrorCode::kind)->code;
}

KXError::Kind kindOf(std::string_view code) {
  auto const* const found = std::ranges::find(kErrorCodes, code, &ErrorCode::code);
  return found == std::end(kErrorCodes) ? KXError::Kind::Failed : found->kind;
}

// What a header can hold of a text: one line, not longer than a reader wants it.
std::string headerText(std::string_view text) {
  constexpr std::size_t kMost = 512;
  std::size_t size = text.size();
  if (size > kMost) {
    size = kMost;
    // Not in the middle of a character.
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) --size;
  }
  std::string line(text.substr(0, size));
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = ' ';
  }
  return line;
}

KXValue decode(std::string_view bytes, int mostLevels) {
  KXUnpacker unpacker(bytes, mostLevels);
  KXValue value = unpacker.takeValue();
  unpacker.expectEnd();
  return value;
}

}  // namespace

// ---- values

void appendValue(std::string& bytes, KXValue const& value) {
  KXPacker packer(bytes);
  packer.addValue(value, 0);
  packer.finish();
}

std::string encodeValue(KXValue const& value) {
  std::string bytes;
  appendValue(bytes, value);
  return bytes;
}

KXValue decodeValue(std::string_view bytes) {
  return decode(bytes, kMostLevels);
}

// ---- calls

bool isId(std::string_view text) {
  return text.size() == 16 && std::ranges::all_of(text, [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

std::string formatCallId(KXCallId const& id) {
  std::string text = id.caller + "." + std::to_string(id.number) + "." + std::to_string(id.done);
  if (!id.to.empty() || !id.lost.empty()) text.append(".").append(id.to);
  for (std::uint64_t const number : id.lost) text.append(".").append(std::to_string(number));
  return text;
}

std::optional<KXCallId> parseCallId(std::string_view text) {
  auto const take = [&] {
    std::string_view const field = text.substr(0, text.find('.'));
    text.remove_prefix(std::min(text.size(), field.size() + 1));
    return field;
  };
  bool const isOpen = text.ends_with('.');
  KXCallId id{.caller = std::string(take())};
  if (!isId(id.caller) || !parseNumber(take(), id.number) || id.number == 0 ||
      !parseNumber(take(), id.done) || isOpen) {
    return std::nullopt;
  }
  if (text.empty()) return id;
  id.to = take();
  if (id.to.empty() ? text.empty() : !isId(id.to)) return std::nullopt;
  for (std::uint64_t last = 0; !text.empty(); last = id.lost.back()) {
    std::uint64_t number = 0;
    bool const isNext = parseNumber(take(), number) && number > last && number <= id.done;
    if (!isNext || id.lost.size() == KXCallId::kMaxLost) return std::nullopt;
    id.lost.push_back(number);
  }
  return id;
}

std::optional<std::uint32_t> parseFromPart(std::string_view text) {
  std::uint32_t part = 0;
  return parseNumber(text, part) ? std::optional(part) : std::nullopt;
}

std::string formatPart(KXPart const& part) {
  return std::to_string(part.index) + "." + std::to_string(part.count);
}

std::optional<KXPart> parsePart(std::string_view text) {
  auto const fields = split<2>(text);
  KXPart part;
  if (!fields || !parseNumber((*fields)[0], part.index) || !parseNumber((*fields)[1], part.count) ||
      part.index >= part.count) {
    return std::nullopt;
  }
  return part;
}

std::string encodeResult(KXValue const& result) {
  std::string bytes;
  KXPacker packer(bytes, kMostReplyLevels);
  packer.addArray(2);
  packer.addInt(0);
  packer.addValue(result, 1);
  packer.finish();
  return bytes;
}

std::string encodeError(KXError const& error) {
  std::string bytes;
  KXPacker packer(bytes);
  packer.addArray(2);
  packer.addInt(1);
  packer.addArray(5);
  packer.addString(error.getModuleName());
  packer.addString(error.getMethodName());
  packer.addString(error.getDescription());
  packer.addString(error.getFileName());
  packer.addInt(error.getLine());
  packer.finish();
  return bytes;
}

KXBusHeaders errorHeaders(KXError const& error) {
  return {{kErrorCodeHeader, codeOf(error.getKind())},
          {kErrorTextHeader, headerText(error.getDescription())}};
}

KXValue decodeReply(std::string_view payload, std::string_view errorCode) {
  KXValue const reply = decode(payload, kMostReplyLevels);
  Fields fields("decodeReply", reply, 2);
  int const outcome = fields.integer();
  if (outcome == 0 && errorCode.empty()) return fields.value();
  if (outcome != 1) {
    fail("decodeReply", "expected 0 for a result without error code, or 1 for an error, got " +
                            std::to_string(outcome) + " with error code '" + headerText(errorCode) +
                            "'");
  }
  Fields error("decodeReply", fields.array(), 5);
  std::string const& module = error.text();
  std::string const& method = error.text();
  std::string const& description = error.text();
  std::string const& file = error.text();
  throw KXError(module, method, description, file, error.integer(), kindOf(errorCode));
}

// ---- packs of notifications

std::string formatPackHeader(KXPackHeader const& header) {
  return header.epoch + "." + std::to_string(header.first) + "." + std::to_string(header.count) +
         "." + std::to_string(header.holeFrom) + "." + std::to_string(header.oldest);
}

std::optional<KXPackHeader> parsePackHeader(std::string_view text) {
  auto const fields = split<5>(text);
  KXPackHeader header;
  if (!fields || !isId((*fields)[0]) || !parseNumber((*fields)[1], header.first) ||
      !parseNumber((*fields)[2], header.count) || !parseNumber((*fields)[3], header.holeFrom) ||
      !parseNumber((*fields)[4], header.oldest)) {
    return std::nullopt;
  }
  std::uint64_t end = 0;
  bool const isSound = header.first > 0 && header.holeFrom > 0 && header.oldest > 0 &&
                       header.holeFrom <= header.first && header.oldest <= header.first &&
                       !__builtin_add_overflow(header.first, header.count, &end);
  if (!isSound) return std::nullopt;
  header.epoch = (*fields)[0];
  return header;
}

std::string formatPackAck(KXPackAck const& ack) {
  return ack.epoch + "." + std::to_string(ack.next) + (ack.isGap ? ".1" : ".0");
}

std::optional<KXPackAck> parsePackAck(std::string_view text) {
  auto const fields = split<3>(text);
  KXPackAck ack;
  if (!fields || !isId((*fields)[0]) || !parseNumber((*fields)[1], ack.next) ||
      ((*fields)[2] != "0" && (*fields)[2] != "1")) {
    return std::nullopt;
  }
  ack.epoch = (*fields)[0];
  ack.isGap = (*fields)[2] == "1";
  return ack;
}

std::string formatUnhandled(KXUnhandled const& unhandled) {
  return std::to_string(unhandled.from) + "." + std::to_string(unhandled.count);
}

std::optional<KXUnhandled> parseUnhandled(std::string_view text) {
  auto const fields = split<2>(text);
  KXUnhandled unhandled;
  if (!fields || !parseNumber((*fields)[0], unhandled.from) ||
      !parseNumber((*fields)[1], unhandled.count) || unhandled.from == 0 || unhandled.count == 0) {
    return std::nullopt;
  }
  return unhandled;
}

KXBusHeaders packAckHeaders(KXPackAck const& ack) {
  KXBusHeaders headers = {{kAckHeader, formatPackAck(ack)}};
  if (ack.unhandled.count > 0) {
    headers.emplace_back(kUnhandledHeader, formatUnhandled(ack.unhandled));
  }
  return headers;
}

std::optional<KXPackAck> packAckOf(KXBusMessage const& message) {
  auto ack = parsePackAck(message.header(kAckHeader));
  if (ack)
    ack->unhandled = parseUnhandled(message.header(kUnhandledHeader)).value_or(KXUnhandled());
  return ack;
}

void appendNotification(std::string& bytes, std::string_view method, KXValue const& arguments) {
  KXPacker packer(bytes);
  packer.addArray(2);
  packer.addString(method);
  packer.addValue(arguments, 1);
  packer.finish();
}

std::vector<KXNotification> decodePack(std::string_view bytes, std::uint32_t count) {
  constexpr std::size_t kLeastBytes = 3;  // of a notification
  if (count > bytes.size() / kLeastBytes) {
    fail("decodePack", "expected " + std::to_string(count) + " notifications, got " +
                           std::to_string(bytes.size()) + " bytes");
  }
  std::vector<KXNotification> notifications;
  notifications.reserve(count);
  KXUnpacker unpacker(bytes);
  std::vector<KXValue> former;
  while (notifications.size() < count) {
    std::vector<KXValue> elements = unpacker.takeElements(former);
    if (elements.size() != 2 || elements[0].getType() != KXValue::TypeString ||
        elements[1].getType() != KXValue::TypeArray) {
      fail("decodePack", "expected [method, arguments] as notification " +
                             std::to_string(notifications.size()) + ", got " +
                             (elements.size() == 2
                                  ? "[" + describe(elements[0]) + ", " + describe(elements[1]) + "]"
                                  : "an array of " + std::to_string(elements.size())));
    }
    notifications.push_back({static_cast<std::string const&>(elements[0]), elements[1]});
    former = std::move(elements);
  }
  unpacker.expectEnd();
  return notifications;
}

// ---- descriptions

namespace {

KXValue toValue(KXParameterInfo const& parameter) {
  return KXValue::arrayOf(parameter.name, parameter.type, parameter.description,
                          parameter.isOptional, parameter.defaultText);
}

KXParameterInfo parameterFromValue(KXValue const& value) {
  Fields fields("moduleInfoFromValue", value, 5);
  KXParameterInfo parameter;
  parameter.name = fields.text();
  parameter.type = fields.text();
  parameter.description = fields.text();
  parameter.isOptional = fields.boolean();
  parameter.defaultText = fields.text();
  return parameter;
}

KXValue toValue(KXMethodInfo const& method) {
  KXValue parameters = KXValue::arrayOf();
  for (KXParameterInfo const& parameter : method.parameters) {
    parameters.arrayPush(toValue(parameter));
  }
  return KXValue::arrayOf(method.name, method.moduleName, method.description, std::move(parameters),
                          toValue(method.result));
}

KXMethodInfo methodFromValue(KXValue const& value) {
  Fields fields("moduleInfoFromValue", value, 5);
  KXMethodInfo method;
  method.name = fields.text();
  method.moduleName = fields.text();
  method.description = fields.text();
  KXValue const& parameters = fields.array();
  for (int i = 0; i < parameters.getSize(); ++i) {
    method.parameters.push_back(parameterFromValue(parameters[i]));
  }
  method.result = parameterFromValue(fields.value());
  return method;
}

}  // namespace

KXValue toValue(KXModuleInfo const& info) {
  KXValue methods = KXValue::arrayOf();
  for (KXMethodInfo const& method : info.methods) methods.arrayPush(toValue(method));
  return KXValue::arrayOf(info.name, info.description, info.version, std::move(methods));
}

KXModuleInfo moduleInfoFromValue(KXValue const& value) {
  Fields fields("moduleInfoFromValue", value, 4);
  KXModuleInfo info;
  info.name = fields.text();
  info.description = fields.text();
  info.version = fields.text();
  KXValue const& methods = fields.array();
  for (int i = 0; i < methods.getSize(); ++i) info.methods.push_back(methodFromValue(methods[i]));
  return info;
}

}  // namespace KX
