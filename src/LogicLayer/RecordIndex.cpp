#include "LogicLayer/RecordIndex.h"

#include "DataLayer/AddressText.h"
#include "DataLayer/SDClock.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;
using State = SDService::State;
using Type = SDService::Type;
using Entry = WorkloadEntry;

namespace {

Entry::Role roleOf(const SDService::Ptr& record, Entry::Workload workload)
{
    if (record.isNull())
        return Entry::Role::Other;
    const bool isAperiodic = workload == Entry::Workload::Aperiodic;
    switch (record->getType()) {
        case Type::WANTED:
            return isAperiodic ? Entry::Role::Search : Entry::Role::Other;
        case Type::ANNOUNCED:
            return isAperiodic && record->getState() == State::ONCE ? Entry::Role::Answer : Entry::Role::Own;
        case Type::DISCOVERED:
            return isAperiodic ? Entry::Role::Other : Entry::Role::Discovered;
        case Type::NONE:
        case Type::ANY:
            break;
    }
    return Entry::Role::Other;
}

bool isMisplaced(const SDService::Ptr& record, Entry::Role role)
{
    return role == Entry::Role::Other ||
           (role == Entry::Role::Discovered && record->getState() != State::MAIN_PHASE);
}

/// Services other than SOME/IP services share the ID 0xFFFE, so only their names distinguish them. 0xFFFF is
/// the wildcard.
bool isMatchedByName(std::uint16_t serviceID)
{
    return serviceID == EntryValues::ServiceID_Non_SOMEIP_SD || serviceID == EntryValues::ServiceID_Any;
}

const std::string& nameOf(const Entry& entry)
{
    return entry->getNuboDescription().getName();
}

}  // namespace

WorkloadEntry::WorkloadEntry(const SDService::Ptr& record, Workload owner, const Poco::Clock& time)
    : SDService::Ptr(record)
    , renewed(SDClock::now())
    , workload(owner)
    , role(roleOf(record, owner))
    , isUnexpected(isMisplaced(record, role))
    , instanceID(record.isNull() ? std::uint16_t{0} : record->getInstanceId())
    , serviceID(record.isNull() ? std::uint16_t{0} : record->getServiceId())
    , due(time)
    , textSize(record.isNull() ? 0 : record->getNuboDescription().getTextSize())
{}

NameEntries::Several::Several(const NameEntries& name)
{
    for (const List* list : {&name.discovered, &name.periodic, &name.aperiodic}) {
        for (const Entry& entry : *list) {
            numbers.reserveOne();
            if (!isMatchedByName(entry.serviceID))
                byServiceID[entry.serviceID].reserveOne();
            if (entry.role == Entry::Role::Discovered)
                discoveredBySender.try_emplace(entry.sender, 0);
            add(entry);
        }
    }
}

void NameEntries::Several::add(const Entry& entry) noexcept
{
    numbers.insert(entry.instanceID);
    if (!isMatchedByName(entry.serviceID))
        byServiceID.find(entry.serviceID)->second.insert(entry.instanceID);
    if (entry.role == Entry::Role::Discovered)
        ++discoveredBySender.find(entry.sender)->second;
}

void NameEntries::Several::remove(const Entry& entry) noexcept
{
    numbers.erase(entry.instanceID);
    if (!isMatchedByName(entry.serviceID))
        byServiceID.find(entry.serviceID)->second.erase(entry.instanceID);
    if (entry.role == Entry::Role::Discovered)
        --discoveredBySender.find(entry.sender)->second;
}

void NameEntries::Several::releaseUnused(std::uint16_t serviceID, const Sender* sender) noexcept
{
    const auto sameID = byServiceID.find(serviceID);
    if (sameID != byServiceID.end() && sameID->second.size() == 0)
        byServiceID.erase(sameID);
    const auto ofSender = discoveredBySender.find(sender);
    if (ofSender != discoveredBySender.end() && ofSender->second == 0)
        discoveredBySender.erase(ofSender);
}

const std::string& NameEntries::text() const
{
    for (const List* list : {&discovered, &periodic, &aperiodic}) {
        if (!list->empty())
            return nameOf(*list->front());
    }
    return nameOf(*searches.front());
}

std::size_t NameEntries::count(std::uint16_t serviceID) const
{
    std::size_t matches = 0;
    for (const Entry& search : searches)
        matches += isMatchedByName(serviceID) || search.serviceID == serviceID ? 1 : 0;
    if (isMatchedByName(serviceID))
        return matches + entries;
    if (several) {
        const auto found = several->byServiceID.find(serviceID);
        return matches + (found == several->byServiceID.end() ? 0 : found->second.size());
    }
    for (const List* list : {&discovered, &periodic, &aperiodic}) {
        if (!list->empty() && list->front()->serviceID == serviceID)
            ++matches;
    }
    return matches;
}

std::uint16_t NameEntries::highestInstance(std::uint16_t serviceID) const
{
    if (several) {
        if (isMatchedByName(serviceID))
            return several->numbers.highest();
        const auto found = several->byServiceID.find(serviceID);
        return found == several->byServiceID.end() ? std::uint16_t{0} : found->second.highest();
    }
    for (const List* list : {&discovered, &periodic, &aperiodic}) {
        if (!list->empty() && (isMatchedByName(serviceID) || list->front()->serviceID == serviceID))
            return list->front()->instanceID;
    }
    return 0;
}

std::uint16_t NameEntries::lowestFreeInstance(std::uint16_t serviceID, std::uint16_t last) const
{
    if (several && isMatchedByName(serviceID))
        return several->numbers.lowestFree(last);
    if (several) {
        const auto found = several->byServiceID.find(serviceID);
        if (found != several->byServiceID.end())
            return found->second.lowestFree(last);
    }
    return highestInstance(serviceID) == 1 ? 2 : 1;
}

std::size_t NameEntries::discoveredOf(const Sender* sender) const
{
    if (!several)
        return !discovered.empty() && discovered.front()->sender == sender ? 1 : 0;
    const auto found = several->discoveredBySender.find(sender);
    return found == several->discoveredBySender.end() ? 0 : found->second;
}

const Entry* NameEntries::firstOwn() const
{
    for (const List* list : {&periodic, &aperiodic}) {
        for (const Entry& entry : *list) {
            if (entry.role == Entry::Role::Own)
                return &entry;
        }
    }
    return nullptr;
}

InstanceNumbers NameEntries::ownNumbers() const
{
    InstanceNumbers numbers;
    for (const List* list : {&periodic, &aperiodic}) {
        for (const Entry& entry : *list) {
            if (entry.role == Entry::Role::Own)
                numbers.insert(entry.instanceID);
        }
    }
    return numbers;
}

void RecordIndex::insert(Entry& entry)
{
    if (!entry.isIndexed()) {
        ++m_nulls;
        return;
    }
    NameEntries& name = obtainName(nameOf(entry));
    Sender* sender = nullptr;
    try {
        sender = obtainSender(entry);
        makeRoom(name, entry, sender);
    }
    catch (...) {
        releaseUnused(name, entry, sender);
        throw;
    }
    link(entry, name, sender);
}

/// Returns the node of that name. link() enters a new node into the table along with its first entry.
NameEntries& RecordIndex::obtainName(const std::string& name)
{
    const std::uint64_t hash = m_hash(name);
    if (NameEntries* const known = lookUp(name, hash))
        return *known;
    auto* const added = new NameEntries;
    added->byName.hash = hash;
    return *added;
}

Sender* RecordIndex::obtainSender(const Entry& entry)
{
    const SDService::SenderAddress& address = entry->getSender();
    if (entry.role != Entry::Role::Discovered || address == SDService::SenderAddress{})
        return nullptr;
    if (Sender* const known = lookUp(address))
        return known;
    auto* const added = new Sender(address);
    m_senders.insert(*added, m_hash(address.data(), address.size()));
    return added;
}

/// Allocates all memory that link() needs, so that link() cannot fail.
void RecordIndex::makeRoom(NameEntries& name, const Entry& entry, const Sender* sender)
{
    if (entry.role == Entry::Role::Search || name.entries == 0)
        return;
    if (!name.several)
        name.several = std::make_unique<NameEntries::Several>(name);
    name.several->numbers.reserveOne();
    if (!isMatchedByName(entry.serviceID))
        name.several->byServiceID[entry.serviceID].reserveOne();
    if (entry.role == Entry::Role::Discovered)
        name.several->discoveredBySender.try_emplace(sender, 0);
}

void RecordIndex::link(Entry& entry, NameEntries& name, Sender* sender) noexcept
{
    if (name.empty())
        m_names.insert(name, name.byName.hash);
    m_instances.insert(entry, hashOfInstance(*entry));
    linkUuid(entry);
    entry.name = &name;
    entry.sender = sender;
    entry.order = ++m_lastOrder;
    listFor(entry, name).pushBack(entry);
    if (entry.role == Entry::Role::Search)
        return;

    ++name.entries;
    if (entry.isUnexpected)
        ++name.unexpected;
    if (entry.role == Entry::Role::Answer)
        ++m_answers;
    if (name.several)
        name.several->add(entry);
    if (entry.role == Entry::Role::Discovered)
        linkDiscovered(entry);
}

/// Records without an identifier are never looked up by it.
void RecordIndex::linkUuid(Entry& entry) noexcept
{
    const std::string& localUuid = entry->getNuboDescription().getLocalUuid();
    if (!localUuid.empty())
        m_uuids.insert(entry, m_hash(localUuid));
}

void RecordIndex::unlinkUuid(Entry& entry) noexcept
{
    if (!entry->getNuboDescription().getLocalUuid().empty())
        m_uuids.erase(entry);
}

void RecordIndex::linkDiscovered(Entry& entry) noexcept
{
    ++entry.name->discoveredCount;
    ++m_discovered;
    m_discoveredText += entry.textSize;
    m_renewals.pushBack(entry);
    if (entry.sender) {
        ++entry.sender->records;
        entry.sender->text += entry.textSize;
    }
}

void RecordIndex::erase(Entry& entry) noexcept
{
    if (!entry.isIndexed()) {
        --m_nulls;
        return;
    }
    NameEntries& name = *entry.name;
    m_instances.erase(entry);
    unlinkUuid(entry);
    listFor(entry, name).erase(entry);
    if (entry.role != Entry::Role::Search) {
        --name.entries;
        if (entry.isUnexpected)
            --name.unexpected;
        if (entry.role == Entry::Role::Answer)
            --m_answers;
        if (name.several)
            name.several->remove(entry);
        if (entry.role == Entry::Role::Discovered)
            unlinkDiscovered(entry);
    }
    if (name.empty())
        m_names.erase(name);
    releaseUnused(name, entry, entry.sender);
}

void RecordIndex::unlinkDiscovered(Entry& entry) noexcept
{
    --entry.name->discoveredCount;
    --m_discovered;
    m_discoveredText -= entry.textSize;
    m_renewals.erase(entry);
    if (entry.sender) {
        --entry.sender->records;
        entry.sender->text -= entry.textSize;
    }
}

/// Releases the nodes that no entry uses any more, after a removal or a failed insertion.
void RecordIndex::releaseUnused(NameEntries& name, const Entry& entry, Sender* sender) noexcept
{
    if (name.several && name.entries < 2)
        name.several.reset();
    if (name.several)
        name.several->releaseUnused(entry.serviceID, sender);
    if (name.empty())
        delete &name;
    if (sender && sender->records == 0) {
        m_senders.erase(*sender);
        delete sender;
    }
}

NameEntries::List& RecordIndex::listFor(const Entry& entry, NameEntries& name)
{
    switch (entry.role) {
        case Entry::Role::Search:
            return name.searches;
        case Entry::Role::Discovered:
            return name.discovered;
        case Entry::Role::Answer:
        case Entry::Role::Own:
        case Entry::Role::Other:
            break;
    }
    return entry.workload == Entry::Workload::Aperiodic ? name.aperiodic : name.periodic;
}

void RecordIndex::identify(Entry& entry, std::string&& localUuid) noexcept
{
    const std::size_t before = entry.textSize;
    unlinkUuid(entry);
    entry->setLocalUuid(std::move(localUuid));
    linkUuid(entry);
    entry.textSize = entry->getNuboDescription().getTextSize();
    m_discoveredText += entry.textSize - before;
    if (entry.sender)
        entry.sender->text += entry.textSize - before;
}

void RecordIndex::renew(Entry& entry) noexcept
{
    entry.renewed = SDClock::now();
    m_renewals.moveToBack(entry);
    if (entry.inName.next)  // usually null: most names have one entry, and NameEntries need not be read
        entry.name->discovered.moveToBack(entry);
}

NameEntries* RecordIndex::lookUp(const std::string& name, std::uint64_t hash) const
{
    return m_names.find(hash, [&](const NameEntries& entries) { return entries.text() == name; });
}

Sender* RecordIndex::lookUp(const SDService::SenderAddress& address) const
{
    return m_senders.find(m_hash(address.data(), address.size()),
                          [&](const Sender& sender) { return sender.address == address; });
}

void RecordIndex::refuseNulls() const
{
    if (m_nulls != 0)
        throw Poco::NullPointerException();
}

const NameEntries* RecordIndex::find(const std::string& name) const
{
    refuseNulls();
    return lookUp(name, m_hash(name));
}

std::vector<Entry*> RecordIndex::findAll(const ServiceIdentity& identity, Entry::Workload workload) const
{
    std::vector<Entry*> found;
    const NameEntries* const name = find(identity.name.value());
    if (!name)
        return found;
    for (const NameEntries::List* list :
         {&name->searches, &name->aperiodic, &name->periodic, &name->discovered}) {
        for (Entry& entry : *list) {
            if (entry.workload == workload && identity.matches(*entry))
                found.push_back(&entry);
        }
    }
    std::sort(found.begin(), found.end(), Entry::isBefore);
    return found;
}

Entry* RecordIndex::findDiscovered(const SDService& offered) const
{
    refuseNulls();
    const NuboServiceDescription& wanted = offered.getNuboDescription();
    Entry* only = nullptr;
    std::size_t count = 0;
    m_instances.visit(hashOfInstance(offered), [&](Entry& entry) {
        const NuboServiceDescription& description = entry->getNuboDescription();
        if (entry->getType() == Type::DISCOVERED && description.getPort() == wanted.getPort() &&
            description.getL4Proto() == wanted.getL4Proto() && description.getName() == wanted.getName() &&
            description.getIpAddressString() == wanted.getIpAddressString())
        {
            only = &entry;
            ++count;
        }
    });
    return count == 1 ? only : nullptr;
}

bool RecordIndex::hasOwn(const std::string& name, const Poco::Net::IPAddress& address,
                         std::uint16_t port) const
{
    const std::string ip = address.toString();
    const auto isThere = [&](OptionL4Protocol::L4Protocol_t protocol) {
        return m_instances.find(hashOfInstance(name, ip, port, protocol), [&](const Entry& entry) {
            const NuboServiceDescription& own = entry->getNuboDescription();
            return entry.role == Entry::Role::Own && own.getPort() == port && own.getName() == name &&
                   withoutScope(own.getIpAddressString()) == withoutScope(ip);
        }) != nullptr;
    };
    return isThere(OptionL4Protocol::TCP) || isThere(OptionL4Protocol::UDP) ||
           isThere(OptionL4Protocol::NONE);
}

std::size_t RecordIndex::countInstance(const ServiceIdentity& identity, Entry::Role role) const
{
    refuseNulls();
    std::size_t count = 0;
    m_instances.visit(hashOfInstance(identity), [&](const Entry& entry) {
        if (entry.role == role && identity.matches(*entry))
            ++count;
    });
    return count;
}

std::vector<Entry*> RecordIndex::findInstance(const ServiceIdentity& identity, Entry::Workload workload) const
{
    refuseNulls();
    std::vector<Entry*> found;
    m_instances.visit(hashOfInstance(identity), [&](Entry& entry) {
        if (entry.workload == workload && identity.matches(*entry))
            found.push_back(&entry);
    });
    std::sort(found.begin(), found.end(), Entry::isBefore);
    return found;
}

std::vector<Entry*> RecordIndex::findUuid(const std::string& localUuid, Entry::Workload workload) const
{
    refuseNulls();
    std::vector<Entry*> found;
    m_uuids.visit(m_hash(localUuid), [&](Entry& entry) {
        if (entry.workload == workload && entry->getNuboDescription().getLocalUuid() == localUuid)
            found.push_back(&entry);
    });
    std::sort(found.begin(), found.end(), Entry::isBefore);
    return found;
}

Entry* RecordIndex::find(const SDService::Ptr& record, Entry::Workload workload) const noexcept
{
    if (record.isNull())
        return nullptr;
    Entry* found = nullptr;
    m_instances.visit(hashOfInstance(*record), [&](Entry& entry) {
        const bool isTheOne = entry.workload == workload && entry == record;
        if (isTheOne && (!found || Entry::isBefore(&entry, found)))
            found = &entry;
    });
    return found;
}

/// The hash includes the length of the name, so that shifting bytes between name and address changes it. It
/// ignores the scope of the address, because some callers look for a record regardless of its scope.
std::uint64_t RecordIndex::hashOfInstance(std::string_view name, std::string_view scoped, std::uint16_t port,
                                          std::uint8_t protocol) const
{
    const std::string_view ip = withoutScope(scoped);
    const std::array<std::uint64_t, 2> numbers{name.size(), std::uint64_t{port} << 8 | protocol};
    std::array<char, 512> bytes;  // fits every instance that can be sent
    const std::size_t size = sizeof numbers + name.size() + ip.size();
    if (size > bytes.size()) {
        const std::array<std::uint64_t, 3> parts{m_hash(name), m_hash(ip), numbers.back()};
        return m_hash(parts.data(), sizeof parts);
    }
    std::memcpy(bytes.data(), numbers.data(), sizeof numbers);
    char* const behindName = std::copy(name.begin(), name.end(), bytes.data() + sizeof numbers);
    std::copy(ip.begin(), ip.end(), behindName);
    return m_hash(bytes.data(), size);
}

std::uint64_t RecordIndex::hashOfInstance(const ServiceIdentity& identity) const
{
    return hashOfInstance(identity.name.value(), identity.ip.value(), identity.port.value(),
                          identity.l4proto.value());
}

std::uint64_t RecordIndex::hashOfInstance(const SDService& record) const
{
    const NuboServiceDescription& description = record.getNuboDescription();
    return hashOfInstance(description.getName(), description.getIpAddressString(), description.getPort(),
                          description.getL4Proto());
}

}  // namespace Nubo::ServiceDiscovery
