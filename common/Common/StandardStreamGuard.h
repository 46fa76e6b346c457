#pragma once

namespace Common {

/// Keeps new descriptors off the standard streams: while it exists, the kernel gives none of the numbers 0 to
/// 2 out, even if the process was started with some of them closed. Otherwise a socket could become standard
/// error, and whatever any part of the process prints would go into it.
///
///     const Common::StandardStreamGuard guard;
///     const int descriptor = ::eventfd(0, EFD_CLOEXEC);  // above 2
///
/// Occupies the closed ones, and closes them again with the last guard of the process; streams that are open
/// are left alone, and so is what another part of the process has meanwhile put in a guard's place. Safe to
/// use on any number of threads at once. To be held only while descriptors are made: during that time the
/// process sees closed streams as open.
class StandardStreamGuard
{
public:
    /// Throws Poco::IOException when a stream is closed and there is no descriptor left to occupy it.
    StandardStreamGuard();
    ~StandardStreamGuard();

    StandardStreamGuard(const StandardStreamGuard&) = delete;
    StandardStreamGuard& operator=(const StandardStreamGuard&) = delete;
};

}  // namespace Common
