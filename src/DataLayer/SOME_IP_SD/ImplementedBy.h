#pragma once

namespace Nubo::ServiceDiscovery {

struct ConstructionCheck;

/// The public side of a kind of entry or option. The base class owns the implementation object; this class
/// knows its type.
template <class Base, class Implementation>
class ImplementedBy : public Base
{
protected:
    /// Takes ownership of a fresh object and checks it. Defined in ConstructionCheck.h, which only the
    /// sources of the kinds include.
    ImplementedBy(Implementation* implementation, const ConstructionCheck& check);

    Implementation* const m_thisImplementation;
};

}  // namespace Nubo::ServiceDiscovery
