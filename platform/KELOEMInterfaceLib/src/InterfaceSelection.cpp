#include "InterfaceSelection.h"

#include <algorithm>

namespace OEMInterface {

namespace {

bool isUsable(const LinkAddress& address)
{
    return !address.isTentative;
}

bool isGlobalOnTheWay(const LinkAddress& address)
{
    return !address.isLinkLocal && address.isTentative && !address.isDuplicate;
}

/// Returns a rank; higher is better. The previous choice outranks all others of its scope. Among equal ranks,
/// the kernel's order decides.
int rank(const LinkAddress& address, const std::string& previousText)
{
    const int scope = address.isLinkLocal ? 0 : 4;
    // An address in use is kept when it becomes deprecated; a new choice prefers one that is not deprecated.
    if (address.text == previousText)
        return scope + 2;
    return scope + (address.isDeprecated ? 0 : 1);
}

const LinkAddress* chooseAddress(const Link& link, const std::string& previousText)
{
    const LinkAddress* best = nullptr;
    for (const LinkAddress& address : link.addresses) {
        if (isUsable(address) && (!best || rank(address, previousText) > rank(*best, previousText)))
            best = &address;
    }
    const bool isNew = best && best->text != previousText;
    if (isNew && best->isLinkLocal &&
        std::any_of(link.addresses.begin(), link.addresses.end(), isGlobalOnTheWay))
        return nullptr;
    return best;
}

}  // namespace

Selection selectInterfaces(const Links& links, const Selection& previous)
{
    Selection selection;
    for (const auto& [index, link] : links) {
        const auto before = previous.find(index);
        const bool hasHistory = before != previous.end() && before->second.name == link.name;
        if (const LinkAddress* address = chooseAddress(link, hasHistory ? before->second.ip : std::string()))
            selection[index] = {link.name, address->text};
    }
    return selection;
}

}  // namespace OEMInterface
