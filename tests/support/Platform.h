#pragma once

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/SharedPtr.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Puts a dispatcher under the test's control into the service locator while it exists.
class PlatformScope
{
public:
    PlatformScope() { offer(); }
    ~PlatformScope() { withdraw(); }

    PlatformScope(const PlatformScope&) = delete;
    PlatformScope& operator=(const PlatformScope&) = delete;

    OEMInterface::ManualDispatcher& dispatcher() { return *m_dispatcher; }

    /// Makes the locator return this scope's dispatcher.
    void offer()
    {
        ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher),
                                              Poco::SharedPtr<OEMInterface::OEMDispatcher>(m_dispatcher));
    }
    /// Puts a null dispatcher in its place.
    static void offerNull()
    {
        ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher),
                                              Poco::SharedPtr<OEMInterface::OEMDispatcher>());
    }
    static void withdraw() { ApplicationServices::getLocator().remove(typeid(OEMInterface::OEMDispatcher)); }

private:
    Poco::SharedPtr<OEMInterface::ManualDispatcher> m_dispatcher{new OEMInterface::ManualDispatcher};
};

}  // namespace Nubo::ServiceDiscovery::Testing
