// Reading a TOML file by tables of fields, with every problem named by file, line and column.
#pragma once

#include <toml++/toml.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/params/settings.h"

namespace settings {

/// Collects the problems of one file.
class ProblemList {
  public:
    explicit ProblemList(std::filesystem::path file) : file_(std::move(file)) {}

    void Add(Problem::Kind kind, const toml::source_position& where, std::string text, std::string suggestion = {});
    std::size_t errors() const { return errors_; }
    /// The problems in the order of the file.
    std::vector<Problem> Take();

    /// The folder that relative paths are taken from.
    std::filesystem::path folder() const { return file_.parent_path(); }

  private:
    std::filesystem::path file_;
    std::vector<Problem> problems_;
    std::size_t errors_ = 0;
};

/// A value of the file, under the name that messages give it. The Read functions leave `out` alone when they report a
/// problem and return false.
class Value {
  public:
    Value(const toml::node& node, std::string name, ProblemList& problems)
        : node_(node), name_(std::move(name)), problems_(problems) {}

    bool Read(bool& out) const;
    /// A text, not empty and without control characters.
    bool Read(std::string& out) const;
    bool ReadNumber(std::uint64_t least, std::uint64_t most, std::uint64_t& out) const;
    /// The same for a narrower type that holds the range.
    template <typename T>
    bool ReadNumber(std::uint64_t least, std::uint64_t most, T& out) const {
        std::uint64_t number = 0;
        if (!ReadNumber(least, most, number)) return false;
        out = static_cast<T>(number);
        return true;
    }
    /// A path, made absolute.
    bool ReadPath(std::string& out) const;
    /// One of the names; its index.
    bool ReadChoice(std::span<const std::string_view> names, std::size_t& out) const;

    const toml::node& node() const { return node_; }
    const std::string& name() const { return name_; }
    ProblemList& problems() const { return problems_; }

    /// Reports "NAME: TEXT" at the value.
    bool Error(const std::string& text, std::string suggestion = {}) const;
    void Warn(const std::string& text, std::string suggestion = {}) const;
    bool WrongType(std::string_view expected, std::string suggestion = {}) const;

  private:
    const toml::node& node_;
    std::string name_;
    ProblemList& problems_;
};

/// A key of a table and how its value goes into the target.
template <typename T>
struct Field {
    std::string_view name;
    void (*read)(const Value& value, T& target);
};

/// Reports a key that the table does not know; `known` are those that it does.
void ReportUnknownKey(const toml::key& key, const Value& table, std::span<const std::string_view> known);

template <typename T>
std::vector<std::string_view> NamesOf(std::span<const Field<T>> fields) {
    std::vector<std::string_view> names;
    for (const Field<T>& field : fields) names.push_back(field.name);
    return names;
}

/// Reads a table key by key. Messages call a key by the table's name, the separator and its own name.
template <typename T>
void ReadTable(const Value& value, std::string_view separator, std::span<const Field<T>> fields, T& target) {
    const toml::table* const table = value.node().as_table();
    if (table == nullptr) {
        value.WrongType("a table");
        return;
    }
    for (const auto& [key, node] : *table) {
        const std::string_view name = key.str();
        const auto found =
            std::find_if(fields.begin(), fields.end(), [name](const Field<T>& field) { return field.name == name; });
        if (found == fields.end()) {
            ReportUnknownKey(key, value, NamesOf(fields));
        } else {
            found->read(Value(node, value.name() + std::string(separator).append(name), value.problems()), target);
        }
    }
}

/// Elements of a list at most: far more than anybody writes, and few enough to compare each with each.
inline constexpr std::size_t kMaxListEntries = 1000;

/// Calls `read(value)` for each element of a list, named "NAME[1]" and so on.
template <typename Read>
bool ReadList(const Value& list, std::string_view expected, Read&& read) {
    const toml::array* const array = list.node().as_array();
    if (array == nullptr) {
        return list.WrongType(expected, list.node().is_table() ? "begin each table with double brackets" : "");
    }
    if (array->size() > kMaxListEntries) {
        return list.Error("has " + std::to_string(array->size()) + " entries, at most " +
                          std::to_string(kMaxListEntries) + " are read");
    }
    std::size_t number = 0;
    for (const toml::node& node : *array) {
        read(Value(node, list.name() + "[" + std::to_string(++number) + "]", list.problems()));
    }
    return true;
}

/// The candidate most like `word`, when one is near enough to be meant; else empty.
std::string_view Nearest(std::string_view word, std::span<const std::string_view> candidates);

/// `did you mean "NAME"?`, or nothing.
std::string DidYouMean(std::string_view word, std::span<const std::string_view> candidates);

/// The text in double quotes, as messages quote what the file holds; long ones are cut.
std::string Quoted(std::string_view text);

}  // namespace settings
