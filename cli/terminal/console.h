// What the program prints: results to standard output, as text or JSON, and all else to standard error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace certmgrctl {

using Json = nlohmann::ordered_json;

enum class Style : std::uint8_t { kPlain, kGood, kWarning, kBad, kDim, kBold };

class Console {
  public:
    Console();

    bool json = false;  // --json

    /// Columns of the terminal that standard output is; 0 when it is none.
    std::size_t columns() const { return columns_; }
    /// The text in a colour, on a terminal that wants colours.
    std::string Painted(Style style, const std::string& text) const;

    /// A line of the result, already escaped.
    void Print(const std::string& line = {}) const;
    /// JSON, on one line when `stream`: one of many.
    void PrintJson(const Json& result, bool stream = false) const;
    /// A line beside the result; escaped here. Nothing is said beside JSON.
    void Note(const std::string& line) const;

  private:
    std::size_t columns_ = 0;
    bool colour_ = false;
};

/// Does the work that fills the JSON, and prints it also when that ends early: what was done stands in it.
template <typename Work>
void PrintJsonAfter(const Console& console, const Json& json, Work work) {
    try {
        work();
    } catch (...) {
        if (console.json) console.PrintJson(json);
        throw;
    }
    if (console.json) console.PrintJson(json);
}

/// A cell of a table, or a value of a list of fields; escaped where it is printed.
struct Cell {
    std::string text;
    Style style = Style::kPlain;
};

/// Rows under headings. On a terminal the columns that may shrink do so until a row fits into a line.
class Table {
  public:
    struct Column {
        std::string heading;
        bool shrinks = false;
    };
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void Add(std::vector<Cell> row);
    bool empty() const { return rows_.empty(); }
    void Print(const Console& console, const std::string& indent = {}) const;

  private:
    std::vector<std::size_t> Widths(std::size_t available) const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

/// Names and values, one under the other; long values go on under themselves. Empty values are left out.
class Fields {
  public:
    void Add(const std::string& name, std::string value, Style style = Style::kPlain);
    void Print(const Console& console) const;

  private:
    std::vector<std::pair<std::string, Cell>> fields_;
};

}  // namespace certmgrctl
