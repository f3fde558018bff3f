// The faces of a watch: what is written for each fetch. No clock of their own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <kx/arguments.hpp>
#include <kx/output.hpp>
#include <kx/watch/samples.hpp>

namespace KX::tool {

/// Makes text of what was fetched. Threads: one.
class KXSampleWriter {
 public:
  virtual ~KXSampleWriter() = default;
  /// What stands before the first sample.
  virtual std::string begin() { return ""; }
  /// What this fetch adds; `isLast` says that no other follows.
  virtual std::string next(KXFetched const& fetched, bool isLast) = 0;
};

/// table: where output is a terminal, redrawn in place with every fetch; elsewhere a new table for
/// every second of samples. jsonl: a line per sample. csv: a line per batch, no events.
/// `terminal` is asked at every redraw and must outlive the writer.
std::unique_ptr<KXSampleWriter> makeWriter(KXFormat format, KXWatchedKeys const& keys,
                                           std::function<KXTerminal()> terminal);

}  // namespace KX::tool
