#include "ReportedInterfaces.h"

#include <utility>

namespace OEMInterface {

void ReportedInterfaces::follow(Selection selection, AddressKeys& gone, const Report& remove,
                                const Report& add)
{
    const auto stays = [&](int index, const ChosenInterface& one) {
        const auto chosen = selection.find(index);
        return chosen != selection.end() && chosen->second == one && gone.count({index, one.ip}) == 0;
    };
    for (auto one = m_present.begin(); one != m_present.end();) {
        if (stays(one->first, one->second)) {
            ++one;
            continue;
        }
        remove(one->second);
        one = m_present.erase(one);
    }
    gone.clear();

    while (!selection.empty()) {
        auto one = selection.extract(selection.begin());
        if (m_present.count(one.key()) != 0)
            continue;
        add(one.mapped());
        m_present.insert(std::move(one));  // allocates nothing: must not fail after the report
    }
}

}  // namespace OEMInterface
