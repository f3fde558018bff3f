// What a person types as the value of an option, made into a value. Pure functions.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

namespace KX::tool {

/// Bad usage: one line for the person who typed it; the tool exits with 2.
class KXUsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class KXFormat { Table, Jsonl, Csv };
enum class KXListing { Table, Json };

/// `10s`, `500ms`, `2m`, `1h`: more than nothing, up to a year. Otherwise KXUsageError.
std::chrono::milliseconds parseDuration(std::string const& text);

/// A whole number that fits 32 bits, of any sign: the watcher corrects what is no good period.
/// Otherwise KXUsageError.
int parsePeriodMs(std::string const& text);

/// `table`, `jsonl` or `csv`. Otherwise KXUsageError with the nearest of them.
KXFormat parseFormat(std::string const& text);

/// `table` or `json`. Otherwise KXUsageError.
KXListing parseListing(std::string const& text);

}  // namespace KX::tool
