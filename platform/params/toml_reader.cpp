#include "platform/params/toml_reader.h"

#include <algorithm>
#include <numeric>
#include <optional>

#include "platform/asn1/text.h"

namespace settings {

namespace {

// A text of the file that a message quotes: enough to recognise it.
constexpr std::size_t kMaxQuotedBytes = 80;
// Longer words are not compared: edit distance costs the product of the lengths.
constexpr std::size_t kMaxComparedBytes = 64;

std::string_view TypeName(const toml::node& node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "a list";
        case toml::node_type::string:
            return "a text";
        case toml::node_type::integer:
            return "a whole number";
        case toml::node_type::floating_point:
            return "a decimal number";
        case toml::node_type::boolean:
            return "true or false";
        default:
            return "a date or a time";
    }
}

// Levenshtein distance.
std::size_t EditDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string JoinNames(std::span<const std::string_view> names) {
    std::string joined;
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i != 0) joined += i + 1 == names.size() ? " or " : ", ";
        joined += Quoted(names[i]);
    }
    return joined;
}

std::string WhereItBelongs(std::string_view key) {
    std::string_view table;
    for (const KnownKey& known : KnownKeys()) {
        if (known.name != key) continue;
        if (!table.empty()) return {};  // in several
        table = known.table;
    }
    return table.empty() ? std::string() : "it belongs in " + std::string(table);
}

bool HasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    });
}

}  // namespace

std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    if (text.size() <= kMaxQuotedBytes) return quoted.append(text) + '"';
    return quoted.append(text.substr(0, asn1::Utf8PrefixLength(text, kMaxQuotedBytes))) + "...\"";
}

std::string_view Nearest(std::string_view word, std::span<const std::string_view> candidates) {
    if (word.size() > kMaxComparedBytes) return {};
    std::string_view nearest;
    std::size_t least = 2 + word.size() / 4;  // a slip or two, more in a long word
    for (const std::string_view candidate : candidates) {
        if (word.size() >= 3 && candidate.starts_with(word)) return candidate;
        const std::size_t distance = EditDistance(word, candidate);
        if (distance < least && distance < candidate.size()) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

std::string DidYouMean(std::string_view word, std::span<const std::string_view> candidates) {
    const std::string_view nearest = Nearest(word, candidates);
    return nearest.empty() ? std::string() : "did you mean " + Quoted(nearest) + "?";
}

void ProblemList::Add(Problem::Kind kind, const toml::source_position& where, std::string text,
                      std::string suggestion) {
    if (kind == Problem::Kind::kError) ++errors_;
    problems_.push_back({kind, file_.string(), where.line, where.column, std::move(text), std::move(suggestion)});
}

std::vector<Problem> ProblemList::Take() {
    std::stable_sort(problems_.begin(), problems_.end(), [](const Problem& a, const Problem& b) {
        return std::pair(a.line, a.column) < std::pair(b.line, b.column);
    });
    return std::move(problems_);
}

bool Value::Error(const std::string& text, std::string suggestion) const {
    problems_.Add(Problem::Kind::kError, node_.source().begin, name_ + ": " + text, std::move(suggestion));
    return false;
}

void Value::Warn(const std::string& text, std::string suggestion) const {
    problems_.Add(Problem::Kind::kWarning, node_.source().begin, name_ + ": " + text, std::move(suggestion));
}

bool Value::WrongType(std::string_view expected, std::string suggestion) const {
    return Error("expected " + std::string(expected) + ", found " + std::string(TypeName(node_)),
                 std::move(suggestion));
}

bool Value::Read(bool& out) const {
    const std::optional<bool> value = node_.value_exact<bool>();
    if (!value) {
        const std::string_view text = node_.value_exact<std::string_view>().value_or("");
        const bool quoted = text == "true" || text == "false";
        return WrongType("true or false", quoted ? "write " + std::string(text) + " without quotes" : std::string());
    }
    out = *value;
    return true;
}

bool Value::Read(std::string& out) const {
    const std::optional<std::string_view> text = node_.value_exact<std::string_view>();
    if (!text) return WrongType("a text", node_.is_table() || node_.is_array() ? "" : "put it in double quotes");
    if (text->empty()) return Error("is empty", "leave the key out if there is nothing to say");
    if (HasControlCharacter(*text)) return Error("holds a control character");
    out = *text;
    return true;
}

bool Value::ReadNumber(std::uint64_t least, std::uint64_t most, std::uint64_t& out) const {
    const std::optional<std::int64_t> number = node_.value_exact<std::int64_t>();
    if (!number) {
        return WrongType("a whole number", node_.is_string() ? "write it without quotes" : "");
    }
    const auto value = static_cast<std::uint64_t>(*number);
    if (*number < 0 || value < least || value > most) {
        return Error(std::to_string(*number) + " is out of range, expected " + std::to_string(least) + " to " +
                     std::to_string(most));
    }
    out = value;
    return true;
}

bool Value::ReadPath(std::string& out) const {
    std::string text;
    if (!Read(text)) return false;
    out = (problems_.folder() / text).lexically_normal().string();
    return true;
}

bool Value::ReadChoice(std::span<const std::string_view> names, std::size_t& out) const {
    std::string text;
    if (!Read(text)) return false;
    const auto found = std::find(names.begin(), names.end(), text);
    if (found == names.end()) {
        return Error(Quoted(text) + " is none of " + JoinNames(names), DidYouMean(text, names));
    }
    out = static_cast<std::size_t>(found - names.begin());
    return true;
}

void ReportUnknownKey(const toml::key& key, const Value& table, std::span<const std::string_view> known) {
    std::string suggestion = DidYouMean(key.str(), known);
    if (suggestion.empty()) suggestion = WhereItBelongs(key.str());
    table.problems().Add(
        Problem::Kind::kError, key.source().begin,
        "unknown key " + Quoted(key.str()) + (table.name().empty() ? " at the top of the file" : " in " + table.name()),
        std::move(suggestion));
}

}  // namespace settings
