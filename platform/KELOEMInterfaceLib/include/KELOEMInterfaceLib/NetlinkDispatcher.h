#pragma once

#include <KELOEMInterfaceLib/LinuxDispatcher.h>

namespace OEMInterface {

/// The dispatcher for plain Linux: it follows the kernel's links and IPv6 addresses and reports every
/// interface that is up, can multicast, is not loopback and has a usable IPv6 address.
///
/// Usable is an address that has passed duplicate address detection (RFC 4862 section 5.4); it stays so
/// while it is deprecated, until it is gone. Each interface is reported with one address. A global address
/// comes before a link-local one: while a global one is still being checked, the link-local one waits, and
/// when a global one comes later, the interface is reported gone with the one and there with the other. An
/// interface keeps its address for as long as it can; renewed lifetimes change nothing. It is reported gone
/// when that address goes, or the link, or its name.
///
/// Reports are delivered on the dispatcher's thread; a delegate that is bound gets the interfaces that are
/// present then on the binding thread.
///
/// It needs three descriptors, which are above 2 and are not inherited, and no further one afterwards, even
/// if the kernel has more notices than it can keep. When following the kernel fails, for want of memory for
/// example, an error is logged every second until it succeeds; what has changed meanwhile is reported then.
///
/// The destructor waits for a report that is being delivered, so it must not be called from within one. A
/// delegate may end the process, though, with the dispatcher in the service locator; and a forked child may
/// destroy its copy of the dispatcher, which leaves the parent's alone.
class KEL_OEM_EXPORT NetlinkDispatcher : public LinuxDispatcher
{
public:
    /// Takes stock of the interfaces and starts to follow them. With `interfaceNames` only those are
    /// reported, whether they exist already or not; without, all. Throws Poco::IOException when the
    /// kernel's netlink interface cannot be used or there are too few descriptors, std::system_error when no
    /// thread can be started, and std::bad_alloc.
    explicit NetlinkDispatcher(std::vector<std::string> interfaceNames = {});
    ~NetlinkDispatcher() override;

private:
    class Follower;
    std::unique_ptr<Follower> m_follower;
};

}  // namespace OEMInterface
