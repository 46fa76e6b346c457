#pragma once

#include <KELOEMInterfaceLib/Export.h>

#include <Poco/AbstractDelegate.h>
#include <Poco/SharedPtr.h>

/// The platform's reports about the unit's network interfaces, and its event memory.
namespace OEMInterface {

/// A network interface for service discovery. The texts are null-terminated and valid only while the report
/// is delivered.
struct NuBo_Ifc_ServiceDiscoveryInterface_t
{
    char const* pInterfaceName;  ///< the kernel's name of the interface, such as "eth0"
    char const* pInterfaceIP;    ///< the unit's IPv6 address on it as text, such as "fd00::1"
};

/// Report: use this interface from now on.
struct AddServiceDiscoveryInterfacePayload
{
    NuBo_Ifc_ServiceDiscoveryInterface_t eventData;
};

/// Report: stop using this interface. The address "::", in any spelling, refers to all interfaces.
struct RemoveServiceDiscoveryInterfacePayload
{
    NuBo_Ifc_ServiceDiscoveryInterface_t eventData;
};

/// Keeps a delegate bound to the dispatcher's reports. Releasing the last reference unbinds it: waits until
/// no report is being delivered, unless a delegate does so from within a report. The delegate receives no
/// further report afterwards.
class KEL_OEM_EXPORT ResponseBinding
{
public:
    virtual ~ResponseBinding();
};
using ResponseBindingPtr = Poco::SharedPtr<ResponseBinding>;

/// Binds delegates to reports, which are delivered on a thread that the dispatcher chooses.
class KEL_OEM_EXPORT OEMDispatcherAsyncCallDefinitions
{
public:
    virtual ~OEMDispatcherAsyncCallDefinitions();

    /// Binds a copy of `delegate` (Poco::delegate(object, &Class::method)) until the returned binding is
    /// released. Before it returns, the first overload reports the interfaces that are present to the new
    /// delegate, on the caller's thread.
    virtual ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<AddServiceDiscoveryInterfacePayload>& delegate) = 0;
    virtual ResponseBindingPtr bindResponse(
        const Poco::AbstractDelegate<RemoveServiceDiscoveryInterfacePayload>& delegate) = 0;
};

/// Calls that the dispatcher executes on the caller's thread.
class KEL_OEM_EXPORT OEMDispatcherSyncCallDefinitions
{
public:
    virtual ~OEMDispatcherSyncCallDefinitions();

    /// Writes an entry to the unit's event memory: a service with that name and application protocol was seen
    /// at that IPv6 address and port. The texts are null-terminated.
    virtual void callLogEvent(char const* name, char const* protocol, char const* ip,
                              unsigned short port) = 0;
};

/// The platform's dispatcher. A process finds it in the service locator under this type.
class KEL_OEM_EXPORT OEMDispatcher : public OEMDispatcherAsyncCallDefinitions,
                                     public OEMDispatcherSyncCallDefinitions
{};

}  // namespace OEMInterface
