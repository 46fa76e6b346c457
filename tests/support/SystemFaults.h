#pragma once

#include <cstddef>
#include <functional>
#include <optional>

#include <sys/types.h>

/// Makes system calls fail, one at a time or for a while. Programs that use it link kel_sd_system_faults,
/// which replaces the C library's calls.
namespace Nubo::ServiceDiscovery::Testing {

enum class SystemCall
{
    Allocate,   ///< malloc() and its kin; under a sanitizer operator new instead
    Socket,     ///< socket()
    Bind,       ///< bind()
    SetOption,  ///< setsockopt()
    Send,       ///< send(), sendto(), sendmsg()
    Receive,    ///< recv(), recvfrom(), recvmsg()
    Watch,      ///< epoll_create(), epoll_ctl()
    Thread,     ///< pthread_create()
    Netlink,    ///< any of the above on a netlink socket
    List,       ///< getifaddrs()
    Control     ///< ioctl()
};

/// Marks the calling thread while it exists, and permanently the threads that it starts meanwhile. Only calls
/// of marked threads can fail.
class InMarkedThread
{
public:
    explicit InMarkedThread(bool isMarked = true);
    ~InMarkedThread();

    InMarkedThread(const InMarkedThread&) = delete;
    InMarkedThread& operator=(const InMarkedThread&) = delete;

private:
    const bool m_wasMarked;
};

/// While it exists, the calls of one kind are counted, from 1, and those from the first to the last of the
/// plan fail. Only one may exist at a time.
///
///     const InMarkedThread marked;
///     const SystemFault fault({SystemCall::Bind});
///     … fault.happened()
class SystemFault
{
public:
    static constexpr std::size_t forEver = static_cast<std::size_t>(-1);

    struct Plan
    {
        SystemCall call;
        std::size_t first = 1;
        std::size_t count = 1;
        /// Returned in place of the result of a call that is made; for sending and receiving only.
        std::optional<ssize_t> result = std::nullopt;
        /// Why it fails, instead of the reason that is usual for the call; bind() only.
        std::optional<int> error = std::nullopt;
    };

    explicit SystemFault(const Plan& plan);
    ~SystemFault();

    SystemFault(const SystemFault&) = delete;
    SystemFault& operator=(const SystemFault&) = delete;

    /// Number of such calls so far.
    std::size_t calls() const;
    /// Whether at least one of them has failed.
    bool happened() const;

private:
    const std::size_t m_first;
};

/// While it exists, the first close() of that descriptor is followed by a call, before it returns. One at a
/// time in a program.
class AfterClose
{
public:
    AfterClose(int descriptor, std::function<void()> call);
    ~AfterClose();

    AfterClose(const AfterClose&) = delete;
    AfterClose& operator=(const AfterClose&) = delete;
};

}  // namespace Nubo::ServiceDiscovery::Testing
