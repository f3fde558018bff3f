#include <kx/watch/writers.hpp>

#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include <kx/watch/formats.hpp>
#include <kx/watch/table.hpp>

namespace KX::tool {
namespace {

class KXJsonlWriter : public KXSampleWriter {
 public:
  explicit KXJsonlWriter(KXWatchedKeys const& keys) : mColumns(keys.columns()) {}
  std::string next(KXFetched const& fetched, bool) override {
    std::string text;
    for (KXSample const& sample : samplesInOrder(fetched, mColumns)) text += jsonLine(sample);
    return text;
  }

 private:
  std::vector<std::string> const mColumns;
};

class KXCsvWriter : public KXSampleWriter {
 public:
  explicit KXCsvWriter(KXWatchedKeys const& keys) : mHeader(csvHeader(keys.columns())) {}
  std::string begin() override { return mHeader; }
  std::string next(KXFetched const& fetched, bool) override {
    std::string text;
    for (KXBatch const& batch : fetched.batches) text += csvLine(batch);
    return text;
  }

 private:
  std::string const mHeader;
};

class KXTableWriter : public KXSampleWriter {
 public:
  KXTableWriter(KXWatchedKeys const& keys, std::function<KXTerminal()> terminal)
      : mColumns(keys.columns()), mTable(keys), mTerminal(std::move(terminal)) {}
  std::string next(KXFetched const& fetched, bool isLast) override {
    constexpr std::int64_t kBlockUs = 1'000'000;
    mTable.add(samplesInOrder(fetched, mColumns));
    KXTerminal const terminal = mTerminal();
    // Either way, because the wall clock may be set back.
    bool const isDue = std::abs(mTable.newestUs() - mDrawnUs.value_or(0)) >= kBlockUs;
    bool const hasNews = mTable.newestUs() != mDrawnUs;
    if (!terminal.isLive && !isDue && !(isLast && hasNews)) return "";
    mDrawnUs = mTable.newestUs();
    return mTable.draw(terminal);
  }

 private:
  std::vector<std::string> const mColumns;
  KXTable mTable;
  std::function<KXTerminal()> const mTerminal;
  std::optional<std::int64_t> mDrawnUs;  ///< the newest sample of the table drawn last
};

}  // namespace

std::unique_ptr<KXSampleWriter> makeWriter(KXFormat format, KXWatchedKeys const& keys,
                                           std::function<KXTerminal()> terminal) {
  switch (format) {
    case KXFormat::Jsonl:
      return std::make_unique<KXJsonlWriter>(keys);
    case KXFormat::Csv:
      return std::make_unique<KXCsvWriter>(keys);
    default:
      return std::make_unique<KXTableWriter>(keys, std::move(terminal));
  }
}

}  // namespace KX::tool
