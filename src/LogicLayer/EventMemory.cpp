#include "LogicLayer/EventMemory.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/SharedPtr.h>

namespace Nubo::ServiceDiscovery {

EventMemory platformEventMemory()
{
    return [](const std::string& name, const std::string& ip, unsigned short port) {
        Poco::SharedPtr<OEMInterface::OEMDispatcher> dispatcher;
        Poco::Any found;
        if (ApplicationServices::getLocator().find(&typeid(OEMInterface::OEMDispatcher), found))
            dispatcher = Poco::AnyCast<Poco::SharedPtr<OEMInterface::OEMDispatcher>>(found);
        if (dispatcher.isNull())
            return false;
        dispatcher->callLogEvent(name.c_str(), "http", ip.c_str(), port);
        return true;
    };
}

}  // namespace Nubo::ServiceDiscovery
