#pragma once

#include <KELOEMInterfaceLib/LinuxDispatcher.h>

namespace OEMInterface {

/// The dispatcher for plain Linux. It monitors the kernel's links and IPv6 addresses and reports every
/// interface that is up, supports multicast, is not loopback and has a usable IPv6 address.
///
/// An address is usable once it has passed duplicate address detection (RFC 4862 section 5.4), and remains so
/// while it is deprecated, until it is removed. Each interface is reported with one address, preferably a
/// global one. While a global address is still being checked, reporting a link-local one is deferred. When a
/// global address appears later, the interface is reported as removed with its link-local address and as
/// added with the global one. Otherwise an interface keeps its address as long as possible; renewed lifetimes
/// have no effect. It is reported as removed when the address is removed, or the link goes down, disappears
/// or is renamed.
///
/// Reports are delivered on the dispatcher's thread. The interfaces present when a delegate is bound are
/// delivered to it on the binding thread.
///
/// The dispatcher uses three descriptors, all above 2 and not inherited by child programs. It needs no
/// further one later, even if it has to read everything again because the kernel lost notices. While
/// monitoring fails, for example because memory is short, it logs an error every second, and reports all
/// changes once it succeeds again.
///
/// The destructor waits for a report that is being delivered, so it must not be called from within one.
/// However, a delegate may end the process while the dispatcher is in the service locator, and a forked child
/// may destroy its copy of the dispatcher without affecting the parent's.
class KEL_OEM_EXPORT NetlinkDispatcher : public LinuxDispatcher
{
public:
    /// Reads the present interfaces and starts monitoring. Reports only the interfaces in `interfaceNames`,
    /// which need not exist yet, or all if it is empty. Throws Poco::IOException when netlink is unavailable
    /// or descriptors are short, std::system_error when no thread can be started, and std::bad_alloc.
    explicit NetlinkDispatcher(std::vector<std::string> interfaceNames = {});
    ~NetlinkDispatcher() override;

private:
    class Follower;
    std::unique_ptr<Follower> m_follower;
};

}  // namespace OEMInterface
