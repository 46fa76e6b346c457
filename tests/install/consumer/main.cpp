// Uses each of the installed libraries; exit code 0 if they do what they should.

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Delegate.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/SharedPtr.h>

#include <iostream>

#include <DataLayer/SDService.h>
#include <ServiceDiscovery.h>

namespace {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceDiscovery;

class Registry
{
public:
    void onServiceListChanged(ServiceDiscovery::ServiceListEventPayload& payload)
    {
        payload.setLocalUuid(payload.getServiceDescription()->generateUri());
    }
};

}  // namespace

int main()
{
    Poco::SharedPtr<OEMInterface::ManualDispatcher> dispatcher(new OEMInterface::ManualDispatcher);
    ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher),
                                          Poco::SharedPtr<OEMInterface::OEMDispatcher>(dispatcher));
    dispatcher->addInterface("eth0", "fd00::12");

    NuboServiceDescription media;
    media.setName("Media");
    media.addVersion("1.2.0");
    media.setIpAddress(Poco::Net::IPAddress("fd00::12"));
    media.setPort(8080);
    media.setLocalUuid("media-1");

    // It is not started: a network is not needed for what is tried here.
    Registry registry;
    ServiceDiscovery discovery;
    discovery.ServiceListChanged += Poco::delegate(&registry, &Registry::onServiceListChanged);
    const bool added = discovery.addService(media);
    discovery.ServiceListChanged -= Poco::delegate(&registry, &Registry::onServiceListChanged);

    std::cout << media.generateUri() << std::endl;
    return added && !discovery.running() && dispatcher->interfaces().size() == 1 ? 0 : 1;
}
