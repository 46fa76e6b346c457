#pragma once

#include <KELOEMInterfaceLib/LinuxDispatcher.h>

namespace OEMInterface {

/// A dispatcher for tests and fixed set-ups: it reports what it is told to, on the calling thread, as often
/// as it is told.
class KEL_OEM_EXPORT ManualDispatcher : public LinuxDispatcher
{
public:
    ~ManualDispatcher() override;

    void addInterface(const std::string& name, const std::string& ip);
    void removeInterface(const std::string& name, const std::string& ip);
};

}  // namespace OEMInterface
