#include "unit/ServiceEvent.h"

namespace NuboSd {

const char* kindName(ServiceEvent::Kind kind)
{
    switch (kind) {
        case ServiceEvent::Kind::Announced:
            return "announced";
        case ServiceEvent::Kind::Discovered:
            return "discovered";
        case ServiceEvent::Kind::Gone:
            return "gone";
    }
    return "";
}

}  // namespace NuboSd
