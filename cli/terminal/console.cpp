#include "cli/terminal/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <utility>

#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

constexpr std::size_t kUsualColumns = 80;
constexpr std::size_t kGap = 2;
/// Below it a text tells nothing any more.
constexpr std::size_t kLeastWidth = 10;

std::size_t TerminalColumns() {
    if (isatty(STDOUT_FILENO) == 0) return 0;
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsualColumns;
}

bool WantsColour() {
    const char* const no_colour = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool dumb = terminal == nullptr || std::string(terminal) == "dumb";
    return isatty(STDOUT_FILENO) != 0 && !dumb && (no_colour == nullptr || *no_colour == '\0');
}

const char* CodeOf(Style style) {
    switch (style) {
        case Style::kPlain:
            break;
        case Style::kGood:
            return "32";
        case Style::kWarning:
            return "33";
        case Style::kBad:
            return "31";
        case Style::kDim:
            return "2";
        case Style::kBold:
            return "1";
    }
    return "0";
}

}  // namespace

Console::Console() : columns_(TerminalColumns()), colour_(WantsColour()) {}

std::string Console::Painted(Style style, const std::string& text) const {
    if (!colour_ || style == Style::kPlain || text.empty()) return text;
    return std::string("\x1b[") + CodeOf(style) + "m" + text + "\x1b[0m";
}

void Console::Print(const std::string& line) const {
    std::cout << line << "\n";
}

void Console::PrintJson(const Json& result, bool stream) const {
    std::cout << result.dump(stream ? -1 : 2, ' ', false, Json::error_handler_t::replace) << "\n" << std::flush;
}

void Console::Note(const std::string& line) const {
    if (!json) std::cerr << Escaped(line) << "\n";
}

void Table::Add(std::vector<Cell> row) {
    for (Cell& cell : row) cell.text = Escaped(cell.text);
    rows_.push_back(std::move(row));
}

std::vector<std::size_t> Table::Widths(std::size_t available) const {
    std::vector<std::size_t> widths;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        std::size_t width = Width(columns_[i].heading);
        for (const auto& row : rows_) width = std::max(width, Width(row[i].text));
        widths.push_back(width);
    }
    std::size_t total = std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1));
    while (available != 0 && total > available) {
        std::size_t* widest = nullptr;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            if (columns_[i].shrinks && (widest == nullptr || widths[i] > *widest)) widest = &widths[i];
        }
        if (widest == nullptr || *widest <= kLeastWidth) break;
        --*widest;
        --total;
    }
    return widths;
}

void Table::Print(const Console& console, const std::string& indent) const {
    const std::size_t columns = console.columns();
    const std::vector<std::size_t> widths = Widths(columns > indent.size() ? columns - indent.size() : 0);
    const auto print_row = [&](const auto& cell_of) {
        std::string line = indent;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            const Cell cell = cell_of(i);
            const std::string text = Cut(cell.text, widths[i]);
            line += console.Painted(cell.style, text);
            if (i + 1 < widths.size()) line.append(widths[i] - Width(text) + kGap, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        console.Print(line);
    };
    print_row([this](std::size_t i) { return Cell{columns_[i].heading, Style::kBold}; });
    for (const auto& row : rows_) print_row([&row](std::size_t i) { return row[i]; });
}

void Fields::Add(const std::string& name, std::string value, Style style) {
    if (!value.empty()) fields_.push_back({name, {std::move(value), style}});
}

void Fields::Print(const Console& console) const {
    std::size_t width = 0;
    for (const auto& [name, value] : fields_) width = std::max(width, Width(name));
    const std::size_t indent = width + kGap;
    const std::size_t room = console.columns() > indent + kLeastWidth ? console.columns() - indent : 0;
    for (const auto& [name, value] : fields_) {
        std::string head = console.Painted(Style::kBold, name) + std::string(indent - Width(name), ' ');
        for (const std::string& line : Lines(value.text, room)) {
            console.Print(head + console.Painted(value.style, line));
            head.assign(indent, ' ');
        }
    }
}

}  // namespace certmgrctl
