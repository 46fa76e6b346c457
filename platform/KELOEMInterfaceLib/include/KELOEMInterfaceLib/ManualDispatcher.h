#pragma once

#include <KELOEMInterfaceLib/LinuxDispatcher.h>

namespace OEMInterface {

/// A dispatcher for tests and fixed set-ups: each call is one report, delivered on the calling thread before
/// the call returns. The texts need not name anything that exists.
class KEL_OEM_EXPORT ManualDispatcher : public LinuxDispatcher
{
public:
    ~ManualDispatcher() override;

    void addInterface(const std::string& name, const std::string& ip);
    void removeInterface(const std::string& name, const std::string& ip);
};

}  // namespace OEMInterface
