#pragma once

#include <KELOEMInterfaceLib/Export.h>

#include <Poco/AbstractDelegate.h>
#include <Poco/SharedPtr.h>

/// What the platform tells a process of the unit's network interfaces, and what it writes down for it.
namespace OEMInterface {

/// A network interface that is to be used for service discovery. The texts are zero-terminated and valid
/// while the report is delivered.
struct NuBo_Ifc_ServiceDiscoveryInterface_t
{
    char const* pInterfaceName;  ///< the kernel's name of the interface, "eth0"
    char const* pInterfaceIP;    ///< the unit's IPv6 address on it as text, "fd00::1"
};

/// Report: this interface is to be used from now on.
struct AddServiceDiscoveryInterfacePayload
{
    NuBo_Ifc_ServiceDiscoveryInterface_t eventData;
};

/// Report: this interface is not to be used any more. The address "::", in any spelling, stands for all
/// interfaces.
struct RemoveServiceDiscoveryInterfacePayload
{
    NuBo_Ifc_ServiceDiscoveryInterface_t eventData;
};

/// Keeps a delegate bound to the dispatcher's reports. Releasing the last reference waits until no report is
/// being delivered, unless a delegate does it from within a report; the delegate gets no further one.
class KEL_OEM_EXPORT ResponseBinding
{
public:
    virtual ~ResponseBinding();
};
using ResponseBindingPtr = Poco::SharedPtr<ResponseBinding>;

/// Reports, delivered on a thread that the dispatcher chooses.
class KEL_OEM_EXPORT OEMDispatcherAsyncCallDefinitions
{
public:
    virtual ~OEMDispatcherAsyncCallDefinitions();

    /// Binds a copy of `delegate` (Poco::delegate(object, &Class::method)) until the returned binding ends.
    /// The interfaces that are reported as present are reported to the new delegate before the call returns,
    /// on the caller's thread.
    virtual ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<AddServiceDiscoveryInterfacePayload>& delegate) = 0;
    virtual ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<RemoveServiceDiscoveryInterfacePayload>& delegate) = 0;
};

/// Calls that the dispatcher carries out on the caller's thread.
class KEL_OEM_EXPORT OEMDispatcherSyncCallDefinitions
{
public:
    virtual ~OEMDispatcherSyncCallDefinitions();

    /// Writes an entry into the unit's event memory: a service of that name and application protocol was
    /// seen at that IPv6 address and port. The texts are zero-terminated.
    virtual void callLogEvent(char const* name, char const* protocol, char const* ip,
                              unsigned short port) = 0;
};

/// The platform's dispatcher. A process finds it through the service locator under its type.
class KEL_OEM_EXPORT OEMDispatcher : public OEMDispatcherAsyncCallDefinitions,
                                     public OEMDispatcherSyncCallDefinitions
{};

}  // namespace OEMInterface
