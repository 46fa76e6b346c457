#include "zoo/Specimen.h"

#include "support/Wire.h"

#include <cstddef>
#include <fstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

using Json = nlohmann::json;

/// Applies `read` to each text of the list, including repetitions, and concatenates the results.
template <class Result, class Read>
Result writtenOut(const Json& list, Read read)
{
    Result result;
    for (const Json& element : list) {
        const bool isText = element.is_string();
        const Result part =
            isText ? read(element.get<std::string>()) : writtenOut<Result>(element.at("of"), read);
        for (std::size_t times = isText ? 1 : element.at("times").get<std::size_t>(); times > 0; --times)
            result.insert(result.end(), part.begin(), part.end());
    }
    return result;
}

std::vector<std::string> texts(const Json& list)
{
    using Texts = std::vector<std::string>;
    return writtenOut<Texts>(list, [](const std::string& text) { return Texts{text}; });
}

std::string bytes(const Json& hex)
{
    return writtenOut<std::string>(hex, fromHex);
}

/// Escapes bytes outside printable ASCII: log lines can contain raw bytes from the network, JSON only UTF-8.
std::string printable(const std::string& line)
{
    std::string result;
    for (const char c : line) {
        if (c >= 0x20 && c <= 0x7e)
            result += c;
        else
            result += "\\x" + toHex(&c, 1);
    }
    return result;
}

bool isReported(const Poco::Message& message)
{
    const std::string& text = message.getText();
    const auto has = [&](const char* word) { return text.find(word) != std::string::npos; };
    return message.getPriority() <= Poco::Message::PRIO_NOTICE ||
           (message.getPriority() == Poco::Message::PRIO_DEBUG && (has("skip") || has("Skip")));
}

}  // namespace

SpecimenGroups readSpecimens(const std::string& fileName)
{
    std::ifstream file(std::string(ZOO_FOLDER "/") + fileName);
    if (!file)
        throw std::runtime_error("cannot read " + fileName);
    const Json content = Json::parse(file);
    SpecimenGroups groups;
    for (const auto& [name, specimens] : content.items()) {
        for (const Json& specimen : specimens)
            groups[name].push_back({specimen.at("name"), bytes(specimen.at("hex")), texts(specimen.at("log")),
                                    texts(specimen.at("handled"))});
    }
    return groups;
}

std::vector<std::string> namesOf(const SpecimenGroups& groups)
{
    std::vector<std::string> names;
    for (const auto& group : groups)
        names.push_back(group.first);
    return names;
}

std::string handledText(ServiceDiscovery::EventType type, const NuboServiceDescription& description)
{
    const bool isNew = type == ServiceDiscovery::EventType::SERVICE_DISCOVERED;
    const bool isUdp = description.getL4Proto() == OptionL4Protocol::UDP;
    std::string text = (isNew ? "+" : "-") + description.getUri() + (isUdp ? " UDP" : " TCP");
    for (const std::string& version : description.getVersions())
        text += " v" + version;
    for (const std::string& category : description.getCategories())
        text += " #" + category;
    return text;
}

std::vector<std::string> reportedLines(const std::vector<Poco::Message>& messages)
{
    std::vector<std::string> lines;
    for (const Poco::Message& message : messages) {
        if (isReported(message))
            lines.push_back(printable(message.getText()));
    }
    return lines;
}

}  // namespace Nubo::ServiceDiscovery::Testing
