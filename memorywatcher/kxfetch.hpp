// From what the tables gave out to what a client gets.
#pragma once

#include <kxvalue/kxvalue.hpp>
#include <memorywatcher/kxlistenertable.hpp>

namespace KX {

/// The result of a fetch: [[key, [[[seconds, microseconds], value], ...]], ...], first all keys of
/// `data`, then all of `events`, each half in byte order of the keys, and the samples of a key
/// oldest first. The samples of one batch share one [seconds, microseconds]. Values are moved out,
/// not copied. All memory is allocated before the first one moves: if there is not enough,
/// std::bad_alloc leaves, and what was taken is as it was. Threads: needs no lock; the caller alone
/// has what was taken.
KXValue buildFetch(KXTaken& data, KXTaken& events);

}  // namespace KX
