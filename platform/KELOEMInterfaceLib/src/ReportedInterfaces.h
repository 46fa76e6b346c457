#pragma once

#include "InterfaceSelection.h"

#include <functional>

namespace OEMInterface {

/// The interfaces reported as present. follow() adapts them to a selection with one report per change.
class ReportedInterfaces
{
public:
    using Report = std::function<void(const ChosenInterface&)>;

    const Selection& present() const { return m_present; }

    /// Reports the removed interfaces, including every one whose address is in `gone`, and clears `gone`;
    /// then reports the new ones. An exception from a report ends the call; the next call delivers the
    /// reports that are still missing.
    void follow(Selection selection, AddressKeys& gone, const Report& remove, const Report& add);

private:
    Selection m_present;
};

}  // namespace OEMInterface
