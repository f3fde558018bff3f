#include <kx/watch/table.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <span>
#include <string_view>

#include <fmt/format.h>

#include <kx/text.hpp>

namespace KX::tool {
namespace {

constexpr std::size_t kTakenWidth = 12;  // 06:58:45.123
constexpr std::size_t kSamplesWidth = 8;
constexpr std::size_t kGap = 2;  // blanks between columns
constexpr std::size_t kLeastKeyWidth = 16;
constexpr std::size_t kLeastValueWidth = 12;
constexpr std::size_t kMostValueWidth = 100;

std::string localTime(std::int64_t timeUs, char const* format) {
  std::time_t const seconds = timeUs / 1'000'000;
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  std::size_t const size = std::strftime(text.data(), text.size(), format, &parts);
  return {text.data(), size};
}

std::string takenAt(std::int64_t timeUs) {
  if (timeUs == 0) return "-";
  return localTime(timeUs, "%H:%M:%S") + fmt::format(".{:03}", timeUs / 1000 % 1000);
}

std::string readableFloat(double value) {
  double const size = std::abs(value);
  if (!std::isfinite(value) || size >= 1e15) return fmt::format("{:g}", value);
  if (value == std::floor(value)) return fmt::format("{:.0f}", value);
  return size >= 1000 ? fmt::format("{:.1f}", value) : fmt::format("{:.4g}", value);
}

}  // namespace

std::string readable(KXValue const& value) {
  switch (value.getType()) {
    case KXValue::TypeInvalid:
      return "-";
    case KXValue::TypeFloat:
      return readableFloat(static_cast<double>(value));
    case KXValue::TypeString:
      return forTerminal(static_cast<std::string const&>(value));
    default:
      return forTerminal(value.toString(1));
  }
}

KXTable::KXTable(KXWatchedKeys const& keys) {
  for (auto const* group : {&keys.data, &keys.unknown, &keys.events}) {
    for (std::string const& key : *group) {
      mRowOfKey.emplace(key, mRows.size());
      mRows.emplace_back().key = forTerminal(key);
    }
  }
}

void KXTable::add(std::vector<KXSample> const& samples) {
  for (KXSample const& sample : samples) {
    Row& row = mRows[mRowOfKey.find(sample.key)->second];
    row.value = sample.value;
    row.timeUs = sample.timeUs;
    ++row.samples;
    mNewestUs = sample.timeUs;
  }
  mSamples += static_cast<std::int64_t>(samples.size());
}

KXTable::Widths KXTable::xWidths(KXTerminal const& terminal) const {
  Widths widths{3, kLeastValueWidth, kTakenWidth, kSamplesWidth};
  for (Row const& row : mRows) {
    widths.key = std::max(widths.key, displayWidth(row.key));
    widths.value = std::max(widths.value, displayWidth(readable(row.value)));
  }
  widths.value = std::min(widths.value, kMostValueWidth);
  if (!terminal.isLive) return widths;

  // The last column of a terminal stays free: some go to the next line once it is written.
  auto const columns = static_cast<std::size_t>(std::max(terminal.columns - 1, 0));
  auto const rest = [&] {
    std::size_t fixed = kGap;
    if (widths.taken > 0) fixed += kGap + widths.taken;
    if (widths.samples > 0) fixed += kGap + widths.samples;
    return columns > fixed ? columns - fixed : 0;
  };
  std::size_t const wanted = std::min(widths.key, kLeastKeyWidth) + kLeastValueWidth;
  if (rest() < wanted) widths.samples = 0;
  if (rest() < wanted) widths.taken = 0;
  std::size_t const room = rest();
  std::size_t const forKey = std::max(room - std::min(room, kLeastValueWidth), room / 2);
  widths.key = std::min(widths.key, forKey);
  widths.value = std::min(widths.value, room - widths.key);
  return widths;
}

std::string KXTable::xLine(std::string_view key, std::string_view value, std::string_view taken,
                           std::string_view samples, Widths const& widths) {
  std::string const gap(kGap, ' ');
  std::string line =
      fitToWidth(key, widths.key, KXCut::Start) + gap + fitToWidth(value, widths.value);
  if (widths.taken > 0) line += gap + fitToWidth(taken, widths.taken);
  if (widths.samples > 0) line += gap + fmt::format("{:>{}}", samples, widths.samples);
  return line;
}

std::string KXTable::xTitle() const {
  std::string const keys = counted(static_cast<std::int64_t>(mRows.size()), "key");
  if (mNewestUs == 0) return keys + ", no sample yet";
  return fmt::format("{}  {}, {}", localTime(mNewestUs, "%Y-%m-%d %H:%M:%S %z"), keys,
                     counted(mSamples, "sample"));
}

std::vector<std::string> KXTable::lines(KXTerminal const& terminal) const {
  Widths const widths = xWidths(terminal);
  std::size_t shown = mRows.size();
  // Title, head, and the line of the cursor; the line that tells of keys left out, if there are.
  auto const room = static_cast<std::size_t>(std::max(terminal.rows - 3, 1));
  if (terminal.isLive && shown > room) shown = room - 1;

  std::vector<std::string> lines{xTitle(), xLine("KEY", "VALUE", "TAKEN", "SAMPLES", widths)};
  for (Row const& row : std::span(mRows).first(shown)) {
    lines.push_back(xLine(row.key, readable(row.value), takenAt(row.timeUs),
                          std::to_string(row.samples), widths));
  }
  if (shown < mRows.size()) {
    lines.push_back(fmt::format("and {} more: enlarge the window", mRows.size() - shown));
  }
  if (!terminal.isLive) return lines;
  for (std::string& text : lines) {
    auto const columns = static_cast<std::size_t>(std::max(terminal.columns - 1, 0));
    if (displayWidth(text) > columns) text = fitToWidth(text, columns);
  }
  return lines;
}

std::string KXTable::draw(KXTerminal const& terminal) {
  std::string text;
  // What somebody wrote stays; the table goes on below it.
  if (terminal.isDisturbed) mDrawnLines = 0;
  if (mDrawnLines > 0 && terminal.isLive) text = fmt::format("\x1b[{}A\r\x1b[J", mDrawnLines);
  if (mDrawnLines > 0 && !terminal.isLive) text += '\n';
  std::vector<std::string> const drawn = lines(terminal);
  for (std::size_t i = 0; i < drawn.size(); ++i) {
    bool const isHead = i == 1 && terminal.hasColor;
    text += isHead ? "\x1b[1m" + drawn[i] + "\x1b[0m\n" : drawn[i] + '\n';
  }
  mDrawnLines = drawn.size();
  return text;
}

}  // namespace KX::tool
