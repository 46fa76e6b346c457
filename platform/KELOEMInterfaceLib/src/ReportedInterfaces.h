#pragma once

#include "InterfaceSelection.h"

#include <functional>

namespace OEMInterface {

/// The interfaces that are reported as present, brought in line with a selection by one report after the
/// other.
class ReportedInterfaces
{
public:
    using Report = std::function<void(const ChosenInterface&)>;

    const Selection& present() const { return m_present; }

    /// Reports what has gone, with every interface whose address is in `gone`, and empties `gone`; then
    /// reports what is new. An exception from a report ends the call; the next one makes up for what is
    /// missing.
    void follow(Selection selection, AddressKeys& gone, const Report& remove, const Report& add);

private:
    Selection m_present;
};

}  // namespace OEMInterface
