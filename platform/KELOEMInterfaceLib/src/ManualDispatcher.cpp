#include <KELOEMInterfaceLib/ManualDispatcher.h>

namespace OEMInterface {

ManualDispatcher::~ManualDispatcher() = default;

void ManualDispatcher::addInterface(const std::string& name, const std::string& ip)
{
    reportAdded(name, ip);
}

void ManualDispatcher::removeInterface(const std::string& name, const std::string& ip)
{
    reportRemoved(name, ip);
}

}  // namespace OEMInterface
