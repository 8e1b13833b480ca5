#include "cli/completion.h"

#include <functional>
#include <map>
#include <optional>

#include "cli/commands/commands.h"
#include "cli/store/names.h"
#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

struct Candidate {
    std::string word;
    std::string meaning;
};
using Candidates = std::vector<Candidate>;
using arguments::Option;

const Candidates kFiles{{":files", ""}};

Candidates TokenLabels(Context& context) {
    Candidates labels;
    for (const auto& token : context.session.Take(context.session.manager().ListTokens()).tokens) {
        if (!token.info.label.empty()) labels.push_back({token.info.label, token.info.providerName});
    }
    return labels;
}

Candidates Serials(Context& context) {
    Candidates serials;
    for (const StoredCert& cert : StoredCerts(context)) serials.push_back({NumberOf(cert.info), NameOf(cert.info)});
    return serials;
}

Candidates KeyNames(Context& context) {
    Candidates names;
    for (const auto& key : context.session.Take(context.session.manager().ListPresharedKeys())) {
        names.push_back({key.name, key.token.label});
    }
    return names;
}

Candidates CrlNumbers(Context& context) {
    Candidates numbers;
    for (const auto& crl : context.session.Take(context.session.manager().ListCrls())) {
        if (!crl.info.crlNumber.empty()) numbers.push_back({crl.info.crlNumber, crl.info.issuer});
    }
    return numbers;
}

Candidates WordsOf(const Option& option) {
    Candidates candidates;
    for (const std::string& word : option.words()) candidates.push_back({word, ""});
    return candidates;
}

/// What an option takes, by its long name.
Candidates ValuesOf(const Option& option, Context& context) {
    const std::string name = option.long_name();
    if (name == "token") return TokenLabels(context);
    if (name.ends_with("file") || name == "output" || name == "socket") return kFiles;
    return WordsOf(option);
}

/// What stands without an option, by command.
Candidates ArgumentsOf(const Command& command, Context& context) {
    using Source = std::function<Candidates(Context&)>;
    static const std::map<std::string, Source> kSources{{"show", Serials},
                                                        {"chain", Serials},
                                                        {"verify", Serials},
                                                        {"export", Serials},
                                                        {"token login", TokenLabels},
                                                        {"token logout", TokenLabels},
                                                        {"token pin", TokenLabels},
                                                        {"psk delete", KeyNames},
                                                        {"crl delete", CrlNumbers},
                                                        {"delete", Serials},
                                                        {"import", [](Context&) { return kFiles; }},
                                                        {"crl import", [](Context&) { return kFiles; }}};
    const std::optional<Command> parent = command.parent();
    const bool nested = parent && parent->parent();
    const std::string name = nested ? parent->name() + " " + command.name() : command.name();
    const auto found = kSources.find(name);
    if (found != kSources.end()) return found->second(context);
    for (const Option& option : command.options()) {
        if (option.long_name().empty() && !option.words().empty()) return WordsOf(option);
    }
    return {};
}

Candidates OptionsOf(const Command& command) {
    Candidates options;
    for (std::optional<Command> at = command; at; at = at->parent()) {
        for (const Option& option : at->options()) {
            if (option.long_name().empty()) continue;
            options.push_back({"--" + option.long_name(), option.description()});
        }
    }
    return options;
}

Candidates CommandsOf(const Command& command) {
    Candidates commands;
    for (const Command& sub : command.commands()) commands.push_back({sub.name(), sub.description()});
    return commands;
}

std::optional<Option> FindOption(const Command& command, const std::string& word) {
    for (std::optional<Command> at = command; at; at = at->parent()) {
        if (const auto option = at->FindOption(word)) return option;
    }
    return std::nullopt;
}

std::optional<Command> FindCommand(const Command& command, const std::string& word) {
    for (const Command& sub : command.commands()) {
        if (sub.name() == word) return sub;
    }
    return std::nullopt;
}

/// The daemon of the line is the one that is asked.
void TakeSocket(const Option& option, const std::string& value, Context& context) {
    if (option.long_name() == "socket") context.session.socket = value;
}

/// Follows the words to the command that they name; `open` is the option whose value comes next.
Command Follow(Command command, Context& context, const std::vector<std::string>& words, std::optional<Option>& open) {
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        if (open) {
            // Bash makes three words of --socket=PATH.
            if (word == "=") continue;
            TakeSocket(*open, word, context);
            open.reset();
        } else if (word.starts_with("--") && equals != std::string::npos) {
            const auto option = FindOption(command, word.substr(0, equals));
            if (option) TakeSocket(*option, word.substr(equals + 1), context);
        } else if (word.starts_with('-')) {
            const auto option = FindOption(command, word);
            if (option && option->takes_value()) open = option;
        } else if (const auto sub = FindCommand(command, word)) {
            command = *sub;
        }
    }
    return command;
}

Candidates CandidatesFor(const Command& program, Context& context, std::vector<std::string> words) {
    const std::string partial = words.back();
    words.pop_back();
    std::optional<Option> open;
    const Command command = Follow(program, context, words, open);
    if (open) return ValuesOf(*open, context);
    if (partial.starts_with('-')) return OptionsOf(command);
    const Candidates commands = CommandsOf(command);
    return commands.empty() ? ArgumentsOf(command, context) : commands;
}

}  // namespace

void PrintCandidates(const arguments::Command& program, Context& context, const std::vector<std::string>& words) {
    if (words.empty()) return;
    try {
        for (const Candidate& candidate : CandidatesFor(program, context, words)) {
            const bool fits = candidate.word.starts_with(words.back()) || candidate.word.starts_with(':');
            if (!fits) continue;
            context.console.Print(Escaped(candidate.word) + "\t" + Escaped(candidate.meaning));
        }
    } catch (const Failure&) {
        // Nothing is offered.
    }
}

}  // namespace certmgrctl
