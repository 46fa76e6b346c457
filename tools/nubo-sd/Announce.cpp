#include "CommandLine.h"
#include "Errors.h"
#include "EventPrinter.h"
#include "LogOutput.h"
#include "ServiceEntry.h"
#include "Unit.h"

#include <KELUtilLib/ApplicationServices.h>

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;
using Nubo::ServiceDiscovery::ServiceDiscovery;

namespace {

struct AnnounceOptions
{
    ServiceEntry service;
    std::string file;
};

/// Adds the service; throws UsageError with the library's reason when it is refused.
void add(ServiceDiscovery& discovery, const NuboServiceDescription& description, const std::string& where,
         ErrorCatcher::Others others = ErrorCatcher::Others::Written)
{
    const ErrorCatcher errors(others);
    if (!discovery.addService(description))
        throw UsageError(where + "\"" + printable(description.getName()) +
                         "\" cannot be announced: " + printable(errors.firstError()));
}

/// Tries all services with the library, which has no interfaces and is never started for it, so that none
/// is sent if one is invalid.
void checkServices(const std::vector<ServiceEntry>& services)
{
    const Poco::Net::IPAddress anyAddress("2001:db8::1");
    const Poco::SharedPtr<OEMInterface::OEMDispatcher> noInterfaces = new OEMInterface::ManualDispatcher;
    ApplicationServices::getLocator().add(typeid(OEMInterface::OEMDispatcher), noInterfaces);
    ServiceDiscovery trial;
    for (const ServiceEntry& service : services)
        add(trial, service.describe(anyAddress), service.where, ErrorCatcher::Others::Dropped);
}

int run(const AnnounceOptions& options, const CommonOptions& common)
{
    std::vector<ServiceEntry> services;
    if (options.file.empty())
        services.push_back(options.service);
    else
        services = readServicesFile(options.file);

    checkServices(services);

    Unit unit(common);
    if (!unit.start())
        return Done;

    EventPrinter printer(std::cout, common.json);
    std::vector<std::string> announced;
    for (const ServiceEntry& service : services) {
        const NuboServiceDescription description = service.describe(unit.address());
        add(unit.discovery(), description, service.where);
        announced.push_back(description.getLocalUuid());
        printer.print({ServiceEvent::Kind::Announced, description});
    }
    unit.run(std::nullopt, [&](const ServiceEvent& event) { return printer.print(event); });
    // A service that was added just now would not be withdrawn by the shutdown alone.
    for (const std::string& uuid : announced)
        unit.discovery().removeService(uuid);
    return Done;
}

}  // namespace

Subcommand::Run setUpAnnounce(CLI::App& commandLine, const CommonOptions& common)
{
    const auto options = std::make_shared<AnnounceOptions>();
    ServiceEntry& service = options->service;
    CLI::Option* name = commandLine.add_option("NAME", service.name, "Name of the service");
    CLI::Option* port = commandLine.add_option("--port", service.port, "Port of the service's endpoint")
                            ->type_name("N")
                            ->check(CLI::Range(1, 65535));
    CLI::Option* version =
        commandLine
            .add_option("--version", service.versions, "Versions of the service, [~]major.minor.patch")
            ->type_name("V...");
    std::vector<CLI::Option*> others{
        name,
        port,
        version,
        commandLine.add_option("--category", service.categories, "Category of the service; repeatable")
            ->type_name("C")
            ->allow_extra_args(false),
        commandLine.add_option("--protocol", service.protocol, "Transport protocol: tcp or udp")
            ->type_name("tcp|udp")
            ->check(CLI::IsMember({"tcp", "udp"}))
            ->capture_default_str(),
        commandLine
            .add_option("--endpoint", service.address, "Address of the endpoint. Default: this unit's")
            ->type_name("IPv6"),
        commandLine
            .add_option("--uuid", service.uuid,
                        "Identifier of the service on this unit. Default: a random one")
            ->type_name("ID")};
    CLI::Option* file =
        commandLine
            .add_option("--file", options->file,
                        "Announce a list of services: a JSON array of objects with the keys of a "
                        "\"discovered\" event")
            ->type_name("SERVICES.json");
    for (CLI::Option* option : others)
        file->excludes(option);

    commandLine.parse_complete_callback([name, port, version, file] {
        if (!file->empty())
            return;
        for (const CLI::Option* required : {name, port, version}) {
            if (required->empty())
                throw CLI::RequiredError(required->get_name());
        }
    });
    return [options, &common] { return NuboSd::run(*options, common); };
}

}  // namespace NuboSd
