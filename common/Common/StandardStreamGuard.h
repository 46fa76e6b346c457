#pragma once

namespace Common {

/// Prevents new descriptors from becoming standard streams: while it exists, the kernel does not assign the
/// numbers 0 to 2, even if the process was started with some of them closed. Otherwise a socket could become
/// standard error, and output of any part of the process would be sent through it.
///
///     const Common::StandardStreamGuard guard;
///     const int descriptor = ::eventfd(0, EFD_CLOEXEC);  // above 2
///
/// The guard occupies the closed streams; the last guard of the process closes them again. It leaves streams
/// that are open alone, and also descriptors with which another part of the process has replaced a
/// placeholder. Thread-safe. Hold it only while creating descriptors, because closed streams appear open
/// meanwhile.
class StandardStreamGuard
{
public:
    /// Throws Poco::IOException when a stream is closed and no descriptor is available to occupy it.
    StandardStreamGuard();
    ~StandardStreamGuard();

    StandardStreamGuard(const StandardStreamGuard&) = delete;
    StandardStreamGuard& operator=(const StandardStreamGuard&) = delete;
};

}  // namespace Common
