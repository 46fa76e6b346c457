#include "diagnosis/Diagnosis.h"
#include "diagnosis/Picture.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace NuboSd {

bool operator==(const Finding& one, const Finding& other)
{
    return one.kind == other.kind && one.what == other.what && one.cure == other.cure;
}

void PrintTo(const Finding& finding, std::ostream* stream)
{
    constexpr const char* kinds[] = {"ok", "note", "bad"};
    *stream << kinds[static_cast<int>(finding.kind)] << ": " << finding.what << " - " << finding.cure;
}

namespace Testing {

using ::testing::ElementsAre;

namespace {

InterfaceState goodInterface(const std::string& name)
{
    InterfaceState interface;
    interface.name = name;
    interface.isUp = interface.hasCarrier = interface.canMulticast = true;
    interface.addresses = {{"fd00::1", 64}, {"fe80::1", 64}};
    interface.hasGroupRoute = interface.isGroupJoined = true;
    interface.settings = {0, 1};
    return interface;
}

Picture goodPicture()
{
    Picture picture;
    picture.interfaces = {goodInterface("eth0")};
    picture.settingsOfAll = picture.settingsOfNew = {0, 0};
    picture.used = {{"eth0", "fd00::1"}};
    picture.echoes = {{"eth0", true, ""}};
    return picture;
}

InterfaceState& eth0(Picture& picture)
{
    return picture.interfaces.front();
}

AddressState& address(Picture& picture)
{
    return eth0(picture).addresses.front();
}

Finding ok(const std::string& what)
{
    return {Finding::Kind::Ok, what, ""};
}

Finding note(const std::string& what, const std::string& cure = "")
{
    return {Finding::Kind::Note, what, cure};
}

Finding bad(const std::string& what, const std::string& cure)
{
    return {Finding::Kind::Bad, what, cure};
}

const std::vector<Finding> goodFindings{
    ok("eth0 is used with fd00::1"),
    ok("port 30491 is free"),
    ok("eth0 has a route to the group ff14::4:0"),
    ok("the group ff14::4:0 is joined on eth0"),
    ok("a datagram to the group comes back on eth0"),
    ok("no UDP datagram was lost since the start"),
};

/// An interface that could be used, but is not.
InterfaceState& addUnused(Picture& picture, const std::string& name = "eth1")
{
    picture.interfaces.push_back(goodInterface(name));
    return picture.interfaces.back();
}

/// The findings of `from` that are not in `findings`.
std::vector<Finding> without(const std::vector<Finding>& findings, const std::vector<Finding>& from)
{
    std::vector<Finding> rest;
    std::copy_if(from.begin(), from.end(), std::back_inserter(rest), [&](const Finding& one) {
        return std::find(findings.begin(), findings.end(), one) == findings.end();
    });
    return rest;
}

}  // namespace

TEST(DiagnosisTest, GoodNetworkHasNothingNotedInTheOrderOfTheRules)
{
    EXPECT_EQ(diagnose(goodPicture()), goodFindings);
}

TEST(DiagnosisTest, KernelWithoutIPv6IsTheOnlyFinding)
{
    Picture picture = goodPicture();
    picture.hasIPv6 = false;

    EXPECT_THAT(diagnose(picture),
                ElementsAre(bad("the kernel has no IPv6", "start it without ipv6.disable=1")));
}

/// What is changed in the good picture, what is found then, and what is no longer found.
struct Rule
{
    std::string name;
    std::function<void(Picture&)> change;
    std::vector<Finding> found;
    std::vector<Finding> gone{};
};

std::string nameOf(const ::testing::TestParamInfo<Rule>& rule)
{
    return rule.param.name;
}

struct DiagnosisRuleTest : ::testing::TestWithParam<Rule>
{};

TEST_P(DiagnosisRuleTest, OneChangeOfAGoodPictureHasItsFindingAndNoOther)
{
    const Rule& rule = GetParam();
    Picture picture = goodPicture();
    rule.change(picture);

    const std::vector<Finding> findings = diagnose(picture);

    EXPECT_EQ(without(goodFindings, findings), rule.found);
    EXPECT_EQ(without(findings, goodFindings), rule.gone);
}

const std::string checksAddress = "wait some seconds; the check needs a carrier";
const Finding portIsFree = goodFindings[1];
const Finding hasRoute = goodFindings[2];
const Finding isJoined = goodFindings[3];
const Finding comesBack = goodFindings[4];
const Finding nothingLost = goodFindings[5];

INSTANTIATE_TEST_SUITE_P(
    OfSettings, DiagnosisRuleTest,
    ::testing::Values(
        Rule{"DisabledOnAllInterfacesIsBad",
             [](Picture& picture) { picture.settingsOfAll.disableIpv6 = 1; },
             {bad("IPv6 is disabled on all interfaces", "sysctl -w net.ipv6.conf.all.disable_ipv6=0")}},
        Rule{"DisabledOnNewInterfacesIsNoted",
             [](Picture& picture) { picture.settingsOfNew.disableIpv6 = 1; },
             {note("IPv6 is disabled on interfaces that are yet to come",
                   "sysctl -w net.ipv6.conf.default.disable_ipv6=0")}},
        Rule{"DisabledOnBothIsReportedOnce",
             [](Picture& picture) {
                 picture.settingsOfAll.disableIpv6 = picture.settingsOfNew.disableIpv6 = 1;
             },
             {bad("IPv6 is disabled on all interfaces", "sysctl -w net.ipv6.conf.all.disable_ipv6=0")}},
        Rule{"UncheckedAddressesAreNoted",
             [](Picture& picture) { eth0(picture).settings.acceptDad = 0; },
             {note("addresses of eth0 are not checked for duplicates",
                   "sysctl -w net.ipv6.conf.eth0.accept_dad=1")}},
        Rule{"CheckOnAllInterfacesIsEnough",
             [](Picture& picture) {
                 eth0(picture).settings.acceptDad = 0;
                 picture.settingsOfAll.acceptDad = 1;
             },
             {}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfUsedInterfaces, DiagnosisRuleTest,
    ::testing::Values(
        Rule{"MissingCarrierIsNoted",
             [](Picture& picture) { eth0(picture).hasCarrier = false; },
             {note("eth0 has no carrier", "plug it in, or start its other end")}},
        Rule{"AddressOfAnotherUnitIsBad",
             [](Picture& picture) { address(picture).isTentative = address(picture).isDuplicate = true; },
             {bad("another unit has the address fd00::1 of eth0 too",
                  "give each unit its own: ip address delete fd00::1/64 dev eth0, and add another one")}},
        Rule{"TentativeAddressIsNoted",
             [](Picture& picture) { address(picture).isTentative = true; },
             {note("the address fd00::1 of eth0 is still being checked for duplicates", checksAddress)}},
        Rule{"DeprecatedAddressIsNoted",
             [](Picture& picture) { address(picture).isDeprecated = true; },
             {note("the address fd00::1 of eth0 is deprecated")}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfUnusedInterfaces, DiagnosisRuleTest,
    ::testing::Values(
        Rule{"InterfaceThatIsNotNamed",
             [](Picture& picture) {
                 addUnused(picture);
                 picture.namedInterfaces = {"eth0"};
             },
             {note("eth1 is not used: --interface does not name it")}},
        Rule{"InterfaceThatIsNamedIsBad",
             [](Picture& picture) {
                 addUnused(picture).isUp = false;
                 picture.namedInterfaces = {"eth0", "eth1"};
             },
             {bad("eth1 is not used: it is down", "ip link set eth1 up")}},
        Rule{"Loopback",
             [](Picture& picture) { addUnused(picture).isLoopback = true; },
             {note("eth1 is not used: it is loopback")}},
        Rule{"Down",
             [](Picture& picture) { addUnused(picture).isUp = false; },
             {note("eth1 is not used: it is down", "ip link set eth1 up")}},
        Rule{"WithoutMulticast",
             [](Picture& picture) { addUnused(picture).canMulticast = false; },
             {note("eth1 is not used: it cannot multicast", "ip link set eth1 multicast on")}},
        Rule{"DisabledIPv6",
             [](Picture& picture) { addUnused(picture, "eth1.10").settings.disableIpv6 = 1; },
             {note("eth1.10 is not used: IPv6 is disabled on it",
                   "sysctl -w net.ipv6.conf.eth1/10.disable_ipv6=0")}},
        Rule{
            "IPv6DisabledByTheKernel",
            [](Picture& picture) {
                addUnused(picture).settings = {1, 2};
            },
            {note("eth1 is not used: IPv6 is disabled on it",
                  "sysctl -w net.ipv6.conf.eth1.disable_ipv6=0; the kernel does so when another unit has the "
                  "link-local address")}},
        Rule{"WithoutAddress",
             [](Picture& picture) { addUnused(picture).addresses.clear(); },
             {note("eth1 is not used: it has no IPv6 address", "ip address add ADDRESS/64 dev eth1")}},
        Rule{"TentativeAddress",
             [](Picture& picture) {
                 addUnused(picture).addresses = {{"fd00::2", 64, true}};
             },
             {note("eth1 is not used: an address is still being checked for duplicates", checksAddress),
              note("the address fd00::2 of eth1 is still being checked for duplicates", checksAddress)}},
        Rule{"DuplicateAddress",
             [](Picture& picture) {
                 addUnused(picture).addresses = {{"fd00::2", 64, true, true}};
             },
             {note("eth1 is not used: another unit has its address too", "give each unit its own"),
              bad("another unit has the address fd00::2 of eth1 too",
                  "give each unit its own: ip address delete fd00::2/64 dev eth1, and add another one")}},
        Rule{"NoReasonInSight",
             [](Picture& picture) { addUnused(picture); },
             {note("eth1 is not used: it has just changed", "look again")}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfChoice, DiagnosisRuleTest,
    ::testing::Values(Rule{"MissingInterfaceIsBad",
                           [](Picture& picture) {
                               picture.namedInterfaces = {"eth0", "eth7"};
                           },
                           {bad("there is no interface \"eth7\"", "ip link shows those that there are")}},
                      Rule{"NoUsedInterfaceIsBad",
                           [](Picture& picture) {
                               picture.interfaces.clear();
                               picture.used.clear();
                               picture.echoes.clear();
                           },
                           {bad("no interface can be used", "one must be up and have an IPv6 address")},
                           {goodFindings[0], hasRoute, isJoined, comesBack}},
                      Rule{
                          "OwnAddressIsFine", [](Picture& picture) { picture.namedAddress = "fe80::1"; }, {}},
                      Rule{"ForeignAddressIsNoted",
                           [](Picture& picture) { picture.namedAddress = "fd00::7"; },
                           {note("no interface has the address fd00::7",
                                 "others reach this unit only if their routes lead here")}},
                      Rule{"WrongAddressEndsTheDiagnosis",
                           [](Picture& picture) { picture.addressError = "\"x\" is not an IPv6 address"; },
                           {},
                           {portIsFree, hasRoute, isJoined, comesBack, nothingLost}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfPort, DiagnosisRuleTest,
    ::testing::Values(Rule{"PortTakenBySeveralIsNoted",
                           [](Picture& picture) {
                               picture.port.state = DiscoveryPort::State::Taken;
                               picture.portHolders = {"nubo-sd (process 7)", "other (process 8)"};
                           },
                           {note("port 30491 is taken by nubo-sd (process 7), other (process 8)",
                                 "a unit has one registry; end this one to start another")},
                           {portIsFree}},
                      Rule{"PortTakenByAnotherUserIsNoted",
                           [](Picture& picture) { picture.port.state = DiscoveryPort::State::Taken; },
                           {note("port 30491 is taken by a process of another user",
                                 "a unit has one registry; end this one to start another")},
                           {portIsFree}},
                      Rule{"UnusablePortIsBad",
                           [](Picture& picture) {
                               picture.port = {DiscoveryPort::State::Unusable, "I/O error"};
                           },
                           {bad("port 30491 cannot be used: I/O error", "see what the system says")},
                           {portIsFree}}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    OfGroup, DiagnosisRuleTest,
    ::testing::Values(Rule{"MissingRouteIsBad",
                           [](Picture& picture) { eth0(picture).hasGroupRoute = false; },
                           {bad("eth0 has no route to the group ff14::4:0",
                                "ip -6 route add multicast ff00::/8 dev eth0 table local")},
                           {hasRoute}},
                      Rule{"NobodyHasJoined",
                           [](Picture& picture) { eth0(picture).isGroupJoined = false; },
                           {note("nobody has joined the group ff14::4:0 on eth0: no registry runs")},
                           {isJoined}},
                      Rule{"RegistryHasNotJoined",
                           [](Picture& picture) {
                               eth0(picture).isGroupJoined = false;
                               picture.port.state = DiscoveryPort::State::Taken;
                           },
                           {note("port 30491 is taken by a process of another user",
                                 "a unit has one registry; end this one to start another"),
                            note("the registry has not joined the group ff14::4:0 on eth0",
                                 "let it use this interface")},
                           {portIsFree, isJoined}},
                      Rule{"LostDatagramIsBad",
                           [](Picture& picture) {
                               picture.echoes = {{"eth0", false, ""}};
                           },
                           {bad("a datagram to the group does not come back on eth0",
                                "look for a packet filter that drops UDP: nft list ruleset")},
                           {comesBack}},
                      Rule{"DatagramThatCannotBeSentIsBad",
                           [](Picture& picture) {
                               picture.echoes = {{"eth0", false, "No route"}};
                           },
                           {bad("no datagram can be sent to the group on eth0: No route",
                                "look for routes and packet filters: ip -6 route show table all")},
                           {comesBack}}),
    nameOf);

// The kernel counts a datagram that overran a buffer or was damaged in Udp6InErrors too.
INSTANTIATE_TEST_SUITE_P(
    OfCounters, DiagnosisRuleTest,
    ::testing::Values(
        Rule{"OverrunBuffer",
             [](Picture& picture) {
                 picture.counters = {{"Udp6RcvbufErrors", 3}, {"Udp6InErrors", 3}};
             },
             {note("UDP datagrams lost since the start, as a receiver was too slow: 3",
                   "give processes more time, or net.core.rmem_max more bytes")},
             {nothingLost}},
        Rule{"DamagedDatagram",
             [](Picture& picture) {
                 picture.counters = {{"Udp6InCsumErrors", 2}, {"Udp6InErrors", 2}};
             },
             {note("UDP datagrams lost since the start, as they were damaged: 2",
                   "look at cables and network cards")},
             {nothingLost}},
        Rule{"OtherReasons",
             [](Picture& picture) {
                 picture.counters = {{"Udp6RcvbufErrors", 1}, {"Udp6InCsumErrors", 2}, {"Udp6InErrors", 7}};
             },
             {note("UDP datagrams lost since the start, as a receiver was too slow: 1",
                   "give processes more time, or net.core.rmem_max more bytes"),
              note("UDP datagrams lost since the start, as they were damaged: 2",
                   "look at cables and network cards"),
              note("UDP datagrams lost since the start, for other reasons: 4")},
             {nothingLost}}),
    nameOf);

}  // namespace Testing
}  // namespace NuboSd
