// Uses each of the installed libraries; exit code 0 if they do what they should.

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Net/IPAddress.h>
#include <Poco/SharedPtr.h>

#include <iostream>

#include <DataLayer/SDService.h>
#include <KnownServices.h>
#include <ServiceDiscovery.h>

using Nubo::ServiceDiscovery::KnownServices;
using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceDiscovery;

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
    ServiceDiscovery discovery;
    const KnownServices services(discovery);
    const bool added = discovery.addService(media);

    std::cout << media.generateUri() << std::endl;
    return added && !discovery.running() && services.size() == 0 && dispatcher->interfaces().size() == 1 ? 0
                                                                                                         : 1;
}
