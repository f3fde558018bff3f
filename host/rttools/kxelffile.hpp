// Whether a library's file is as long as its own headers say. The system maps it without asking,
// and a missing page then ends the process with SIGBUS.
#pragma once

#include <string>

namespace KX {

/// What is missing of a library's file; empty if nothing is, or if it is no library of this
/// machine, which the system says itself when it is to open it.
std::string missingPartOf(std::string const& path);

}  // namespace KX
