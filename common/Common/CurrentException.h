#pragma once

#include <iosfwd>

namespace Common {

/// Streams the text of the exception that is being handled. Use it only in a catch block:
///
///     log << "Error: … failed: " << Common::currentException << '\n';
///
/// Does not throw, even if the exception is std::bad_alloc.
std::ostream& currentException(std::ostream& stream);

}  // namespace Common
