// Samples as lines of text that a standard parser reads: JSON Lines and CSV. Pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <kxvalue/kxvalue.hpp>

#include <kx/watch/samples.hpp>

namespace KX::tool {

/// Seconds with so many decimals, 6 or more.
std::string secondsText(std::int64_t timeUs, int decimals);

/// One JSON object on a line: `{"time":1700000000.010000,"key":"Host/Load","value":0.5}`.
std::string jsonLine(KXSample const& sample);

/// `time,KEY,...`. Cells as in csvLine().
std::string csvHeader(std::vector<std::string> const& columns);

/// The time with 9 decimals and one cell per column; a value that is missing, or no finite number,
/// is an empty cell. Booleans are 1 and 0, floats the shortest text that reads back the same, with
/// `.0` if they are whole. Texts stand in quotes only if they hold a comma or blanks at an end;
/// double quotes become single ones and control characters blanks, since not every reader knows
/// what else to do with them. Arrays are JSON under the same rule, binary data is base64.
std::string csvLine(KXBatch const& batch);

}  // namespace KX::tool
