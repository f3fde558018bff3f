#include <kx/watch/writers.hpp>

#include <utility>
#include <vector>

#include <kx/watch/formats.hpp>
#include <kx/watch/table.hpp>

namespace KX::tool {
namespace {

class KXJsonlWriter : public KXSampleWriter {
 public:
  std::string next(KXFetched const& fetched, bool) override {
    std::string text;
    for (KXSample const& sample : fetched.samples) text += jsonLine(sample);
    return text;
  }
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
      : mTable(keys), mTerminal(std::move(terminal)) {}
  std::string next(KXFetched const& fetched, bool isLast) override {
    constexpr std::int64_t kBlockUs = 1'000'000;
    mTable.add(fetched);
    KXTerminal const terminal = mTerminal();
    bool const isDue = mTable.newestUs() >= mDrawnUs + kBlockUs;
    bool const hasNews = mTable.newestUs() > mDrawnUs;
    if (!terminal.isLive && !isDue && !(isLast && hasNews)) return "";
    mDrawnUs = mTable.newestUs();
    return mTable.draw(terminal);
  }

 private:
  KXTable mTable;
  std::function<KXTerminal()> const mTerminal;
  std::int64_t mDrawnUs = 0;
};

}  // namespace

std::unique_ptr<KXSampleWriter> makeWriter(KXFormat format, KXWatchedKeys const& keys,
                                           std::function<KXTerminal()> terminal) {
  switch (format) {
    case KXFormat::Jsonl:
      return std::make_unique<KXJsonlWriter>();
    case KXFormat::Csv:
      return std::make_unique<KXCsvWriter>(keys);
    default:
      return std::make_unique<KXTableWriter>(keys, std::move(terminal));
  }
}

}  // namespace KX::tool
