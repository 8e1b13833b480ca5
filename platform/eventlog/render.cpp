#include "platform/eventlog/render.h"

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <cstdint>

#include "platform/asn1/text.h"

namespace eventlog {

namespace {

constexpr std::size_t kIndentColumns = 4;  // of one tab at the start of a line, and the least of any further line
constexpr std::size_t kMaxIndentColumns = 32;

void AppendByteEscape(std::string& out, unsigned char byte) {
    out += fmt::format("\\x{:02x}", byte);
}

void TrimEnd(std::string& out) {
    out.erase(out.find_last_not_of(' ') + 1);
}

// Writes attributes so that they can neither leave their entry nor hide what they are.
class SafeText {
  public:
    explicit SafeText(std::string& out) : out_(out) {}

    void Append(std::string_view text) {
        while (!text.empty()) {
            const auto special =
                static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), IsPlain) - text.begin());
            out_.append(text, 0, special);
            text.remove_prefix(special);
            if (!text.empty()) text.remove_prefix(Step(text));
        }
    }
    // A new line whose indentation is given by the white space at the start of `text`; how much of it was used.
    std::size_t NewLine(std::string_view text) {
        TrimEnd(out_);
        std::size_t used = 0;
        std::size_t columns = 0;
        for (; used < text.size() && (text[used] == '\t' || text[used] == ' '); ++used) {
            columns += text[used] == '\t' ? kIndentColumns : 1;
        }
        out_ += '\n';
        out_.append(std::clamp(columns, kIndentColumns, kMaxIndentColumns), ' ');
        return used;
    }

  private:
    static bool IsPlain(char c) { return c >= ' ' && c < 0x7F && c != '\\'; }

    // Writes what stands at the start of `text`; its length.
    std::size_t Step(std::string_view text) {
        const auto byte = static_cast<unsigned char>(text[0]);
        if (byte == '\\') return StepBackslashes(text);
        if (byte >= 0x80) return StepUtf8(text);
        if (byte == '\t') {
            if (!out_.empty() && out_.back() != ' ' && text.size() > 1 && text[1] != ' ') out_ += ' ';
        } else if (byte == '\n') {
            out_ += "\\n";
        } else if (byte < 0x20 || byte == 0x7F) {
            AppendByteEscape(out_, byte);
        } else {
            out_ += text[0];
        }
        return 1;
    }

    // Only a backslash that is not itself escaped continues the text on the next line: printable names escape theirs.
    std::size_t StepBackslashes(std::string_view text) {
        const std::size_t count = std::min(text.find_first_not_of('\\'), text.size());
        if (count % 2 == 0 || count == text.size() || text[count] != '\n') {
            out_.append(count, '\\');
            return count;
        }
        out_.append(count - 1, '\\');
        return count + 1 + NewLine(text.substr(count + 1));
    }

    std::size_t StepUtf8(std::string_view text) {
        std::size_t length = 0;
        const char32_t character = asn1::DecodeUtf8(text, length);
        if (character == asn1::kBadCodePoint) {
            AppendByteEscape(out_, static_cast<unsigned char>(text[0]));
            return 1;
        }
        if (asn1::IsHidden(character)) {
            out_ += fmt::format("\\u{{{:04x}}}", static_cast<std::uint32_t>(character));
        } else {
            out_ += text.substr(0, length);
        }
        return length;
    }

    std::string& out_;
};

std::string CutNote(std::size_t bytes) {
    return "... (" + std::to_string(bytes) + " bytes cut)";
}

void AppendAttribute(SafeText& safe, std::string_view attribute) {
    const std::size_t shown = asn1::Utf8PrefixLength(attribute, kMaxAttributeBytes);
    safe.Append(attribute.substr(0, shown));
    if (shown < attribute.size()) safe.Append(CutNote(attribute.size() - shown));
}

// Appends the wording with its attributes; the number of attributes that it mentions.
std::size_t AppendWording(SafeText& safe, std::string_view text, const std::vector<std::string>& attributes) {
    std::size_t mentioned = 0;
    while (!text.empty()) {
        const std::size_t special = std::min(text.find_first_of("%\n"), text.size());
        safe.Append(text.substr(0, special));
        text.remove_prefix(special);
        if (text.empty()) break;
        if (text[0] == '\n') {
            text.remove_prefix(1);
            text.remove_prefix(safe.NewLine(text));
            continue;
        }
        const auto number = static_cast<std::size_t>(text[1] - '0');
        if (number <= attributes.size()) AppendAttribute(safe, attributes[number - 1]);
        mentioned = std::max(mentioned, number);
        text.remove_prefix(2);
    }
    return mentioned;
}

}  // namespace

std::string RenderText(const Wording& wording, const std::vector<std::string>& attributes) {
    std::string text;
    SafeText safe(text);
    for (std::size_t i = AppendWording(safe, wording.text, attributes); i < attributes.size(); ++i) {
        safe.Append("; ");
        AppendAttribute(safe, attributes[i]);
    }
    TrimEnd(text);
    const std::size_t shown = asn1::Utf8PrefixLength(text, kMaxTextBytes);
    if (shown < text.size()) text.replace(shown, std::string::npos, CutNote(text.size() - shown));
    return text;
}

}  // namespace eventlog
