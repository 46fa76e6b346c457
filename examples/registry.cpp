// A registry that prints the services of other units whenever they change. KnownServices maintains the table,
// so no code of the registry runs within ServiceListChanged, which would block the library.
//
//     bin/example-registry ADDRESS SECONDS     (this unit's IPv6 address; exits after SECONDS without a
//     change)
//
// and on another unit: nubo-sd announce Media --port 8080 --version 1.2.0

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <string>

#include <KnownServices.h>
#include <ServiceDiscovery.h>

using namespace Nubo::ServiceDiscovery;

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: example-registry ADDRESS SECONDS" << std::endl;
        return 2;
    }
    const std::chrono::seconds patience(std::stol(argv[2]));
    ApplicationServices::getLocator().add(
        typeid(OEMInterface::OEMDispatcher),
        Poco::SharedPtr<OEMInterface::OEMDispatcher>(new OEMInterface::NetlinkDispatcher));
    ServiceDiscovery discovery;
    const KnownServices services(discovery);
    if (!discovery.startup(Poco::Net::IPAddress(argv[1])))
        return 1;
    std::uint64_t seen = 0;
    while (services.waitForChange(seen, patience) != seen) {
        const auto snapshot = services.snapshot();
        std::cout << "services known:" << std::endl;
        for (const auto& service : *snapshot)
            std::cout << "  " << service->uuid << "  " << service->description.getUri() << std::endl;
        seen = snapshot->revision();
    }
    discovery.shutdown();
    return 0;
}
