// What saves a caller and a server from translating the same large arguments again and again: a
// watch asks for the same ten thousand names a hundred times a second. Not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// Smaller ones are translated as fast as they are found, larger ones cost too much to keep.
inline constexpr std::size_t kLeastCachedBytes = 1024;
inline constexpr std::size_t kMostCachedBytes = 4 << 20;

/// The arguments of one method's last call, and their bytes. What it holds of the arguments is
/// copied by whoever changes it, so a block that is still the same has the same content.
class KX_API KXEncodedArguments {
 public:
  /// The bytes of these arguments; null if they are not known to be those of the last call.
  std::shared_ptr<std::string const> find(KXValue const& arguments) const;
  /// Keeps both, if that is worth it. What was kept before goes with the arguments passed: they are
  /// the former ones then.
  void keep(KXValue& arguments, std::shared_ptr<std::string const> bytes);

 private:
  KXValue mArguments;
  std::shared_ptr<std::string const> mBytes;
};

/// Arguments that came, each under the subject and the caller that they came with.
class KX_API KXDecodedArguments {
 public:
  static constexpr std::size_t kMaxEntries = 64;
  static constexpr std::size_t kMaxBytes = 16 << 20;

  /// Null if the last ones there had other bytes.
  KXValue const* find(std::string const& key, std::string_view bytes);
  void keep(std::string const& key, std::string_view bytes, KXValue const& arguments);

 private:
  struct Entry {
    std::string key;
    std::string bytes;
    KXValue arguments;
  };
  void xErase(std::list<Entry>::iterator entry);

  std::list<Entry> mEntries;  // the longest unused first
  std::unordered_map<std::string, std::list<Entry>::iterator> mByKey;
  std::size_t mBytes = 0;
};

}  // namespace KX
