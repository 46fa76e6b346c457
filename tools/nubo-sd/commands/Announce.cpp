#include "Errors.h"
#include "commands/Subcommands.h"
#include "services/Refusal.h"
#include "services/ServiceCheck.h"
#include "services/ServicesFile.h"
#include "terminal/ServiceReport.h"
#include "unit/Unit.h"

#include <memory>
#include <utility>

#include <CLI/CLI.hpp>

namespace NuboSd {

using Nubo::ServiceDiscovery::NuboServiceDescription;

namespace {

struct AnnounceOptions
{
    ServiceEntry service;
    std::string file;
    ReportOptions report;
};

/// The services to announce. Throws UsageError with the first fault of any of them, so that an invalid one
/// keeps all of them from being sent.
std::vector<ServiceEntry> servicesOf(const AnnounceOptions& options)
{
    if (options.file.empty()) {
        const std::vector<Fault> faults = ServiceCheck().check(options.service);
        if (!faults.empty())
            throw UsageError(faults.front().text);
        return {options.service};
    }
    ServicesFile file = readServicesFile(options.file);
    if (!file.mistakes.empty())
        throw UsageError(file.mistakes.front());
    return std::move(file.services);
}

int run(const AnnounceOptions& options, const CommonOptions& common)
{
    const std::vector<ServiceEntry> services = servicesOf(options);

    ServiceReport report(options.report, common.json);
    Unit unit(common);
    if (!unit.start())
        return Done;

    std::vector<std::string> announced;
    for (const ServiceEntry& service : services) {
        const NuboServiceDescription description = service.describe(unit.address());
        const std::string reason = announce(unit.discovery(), description);
        if (!reason.empty())
            throw UsageError(service.where + reason);
        announced.push_back(description.getLocalUuid());
        report.print({ServiceEvent::Kind::Announced, description});
    }
    report.run(unit);
    // The shutdown alone would not withdraw a service that was added a moment ago.
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
    addReportOptions(commandLine, options->report);

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
