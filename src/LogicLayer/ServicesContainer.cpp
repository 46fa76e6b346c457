#include "LogicLayer/ServicesContainer.h"

#include "LogicLayer/Records.h"

#include <ostream>

namespace Nubo::ServiceDiscovery {

std::ostream& operator<<(std::ostream& stream, const ServicesContainer_Printer& printer)
{
    for (const SDService::Ptr& service : printer.services)
        stream << " \"" << (service.isNull() ? "<nullptr>" : nameOf(service)) << "\"";
    return stream;
}

std::ostream& operator<<(std::ostream& stream, const ServicesContainer_TypeAndStatePrinter& printer)
{
    for (const SDService::Ptr& service : printer.services) {
        if (service.isNull())
            stream << " <nullptr>";
        else
            stream << " \"" << nameOf(service) << "\" " << service->getType() << " x " << service->getState();
    }
    return stream;
}

}  // namespace Nubo::ServiceDiscovery
