#pragma once

#include <iosfwd>

namespace Common {

/// Streams the text of the exception that is being handled; only for use in a catch block:
///
///     log << "Error: … failed: " << Common::currentException << '\n';
///
/// Throws nothing, even if that exception says that memory is short.
std::ostream& currentException(std::ostream& stream);

}  // namespace Common
