#pragma once

#include <KELOEMInterfaceLib/LinuxDispatcher.h>

namespace OEMInterface {

/// A dispatcher for tests and static configurations. Each call delivers one report on the calling thread
/// before it returns. The interface and the address need not exist.
class KEL_OEM_EXPORT ManualDispatcher : public LinuxDispatcher
{
public:
    ~ManualDispatcher() override;

    void addInterface(const std::string& name, const std::string& ip);
    void removeInterface(const std::string& name, const std::string& ip);
};

}  // namespace OEMInterface
