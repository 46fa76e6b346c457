#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

/// A service in JSON: in an event, in a list of services, in a packet that was seen. Writers and readers
/// follow the same lists of keys.
namespace NuboSd {

struct ServiceEvent;

namespace ServiceKey {

constexpr auto uuid = "uuid";
constexpr auto name = "name";
constexpr auto versions = "versions";
constexpr auto categories = "categories";
constexpr auto address = "address";
constexpr auto port = "port";
constexpr auto protocol = "protocol";
constexpr auto uri = "uri";

}  // namespace ServiceKey

/// Calls `visit(key, value)` for each key of an offer beside the name.
template <class Offer, class Visit>
void visitOffer(Offer& offer, Visit&& visit)
{
    visit(ServiceKey::versions, offer.versions);
    visit(ServiceKey::categories, offer.categories);
    visit(ServiceKey::address, offer.address);
    visit(ServiceKey::port, offer.port);
    visit(ServiceKey::protocol, offer.protocol);
}

/// Calls `visit(key, value)` for each key of a ServiceEntry, in output order.
template <class Entry, class Visit>
void visitService(Entry& service, Visit&& visit)
{
    visit(ServiceKey::uuid, service.uuid);
    visit(ServiceKey::name, service.name);
    visitOffer(service, visit);
    visit(ServiceKey::uri, service.uri);
}

/// {"event":"discovered","uuid":"…","name":"Media",…}; with the time, "time" is the first key.
nlohmann::ordered_json eventJson(const ServiceEvent& event, bool withTime);

}  // namespace NuboSd
