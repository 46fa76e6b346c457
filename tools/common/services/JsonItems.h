#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

/// A JSON array of objects with the position of each part, so that a mistake can be reported at its place.
namespace NuboSd {

/// A place in a file; line and column count from 1, the column in bytes.
struct Position
{
    std::size_t line = 1;
    std::size_t column = 1;
};

struct Mistake
{
    Position position;
    std::string text;
};

/// A key of an object and its value. Elements of a list are kept, but nothing below them.
struct Field
{
    std::string key;
    Position keyPosition;
    Position position;
    nlohmann::json value;
    std::vector<Position> elements;
};

/// An element of the array.
struct Item
{
    Position position;
    bool isObject = false;
    std::vector<Field> fields;
};

struct JsonItems
{
    std::optional<Mistake> syntaxError;  ///< then the rest is incomplete
    bool isList = false;
    Position position;  ///< of the outermost value
    std::vector<Item> items;
};

JsonItems readJsonItems(const std::string& text);

}  // namespace NuboSd
