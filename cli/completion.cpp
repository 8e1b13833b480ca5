#include "cli/completion.h"

#include <functional>
#include <map>

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

Candidates Words(std::initializer_list<const char*> words) {
    Candidates candidates;
    for (const char* word : words) candidates.push_back({word, ""});
    return candidates;
}

/// What an option takes, by its long name.
Candidates ValuesOf(const CLI::Option& option, Context& context) {
    const std::string name = option.get_lnames().empty() ? "" : option.get_lnames().front();
    if (name == "token") return TokenLabels(context);
    if (name == "as") return Words({"trusted", "personal", "other"});
    if (name == "format") return Words({"der", "pem", "pkcs7", "pkcs12"});
    if (name == "crl") return Words({"soft", "strict"});
    if (name.ends_with("file") || name == "output" || name == "socket") return kFiles;
    return {};
}

/// What stands without an option, by command.
Candidates ArgumentsOf(const CLI::App& command, Context& context) {
    using Source = std::function<Candidates(Context&)>;
    static const auto kNoNames = [](Context&) { return Candidates(); };
    static const std::map<std::string, Source> kSources{
        {"show", Serials},
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
        {"crl import", [](Context&) { return kFiles; }},
        {"list",
         [](Context&) {
             return Words({"personal", "trusted", "intermediate", "other"});
         }},
        {"completion", [](Context&) {
             return Words({"bash", "zsh", "fish"});
         }}};
    const CLI::App* const parent = command.get_parent();
    const bool nested = parent != nullptr && parent->get_parent() != nullptr;
    const std::string name = nested ? parent->get_name() + " " + command.get_name() : command.get_name();
    const auto found = kSources.find(name);
    return (found == kSources.end() ? Source(kNoNames) : found->second)(context);
}

Candidates OptionsOf(const CLI::App& command) {
    Candidates options;
    for (const CLI::App* app = &command; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            for (const std::string& name : option->get_lnames())
                options.push_back({"--" + name, option->get_description()});
        }
    }
    return options;
}

Candidates CommandsOf(const CLI::App& command) {
    Candidates commands;
    for (const CLI::App* sub : command.get_subcommands([](const CLI::App*) { return true; })) {
        commands.push_back({sub->get_name(), sub->get_description()});
    }
    return commands;
}

const CLI::Option* FindOption(const CLI::App& command, const std::string& word) {
    for (const CLI::App* app = &command; app != nullptr; app = app->get_parent()) {
        if (const CLI::Option* option = app->get_option_no_throw(word)) return option;
    }
    return nullptr;
}

bool TakesValue(const CLI::Option* option) {
    return option != nullptr && option->get_items_expected_max() > 0;
}

CLI::App* FindCommand(CLI::App& command, const std::string& word) {
    const auto found = command.get_subcommands([&](const CLI::App* sub) { return sub->get_name() == word; });
    return found.empty() ? nullptr : found.front();
}

/// The daemon of the line is the one that is asked.
void TakeSocket(const CLI::Option& option, const std::string& value, Context& context) {
    if (option.check_lname("socket")) context.session.socket = value;
}

/// Follows the words to the command that they name; `open` is the option whose value comes next.
CLI::App* Follow(CLI::App& app, Context& context, const std::vector<std::string>& words, const CLI::Option*& open) {
    CLI::App* command = &app;
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        if (open != nullptr) {
            // Bash makes three words of --socket=PATH.
            if (word == "=") continue;
            TakeSocket(*open, word, context);
            open = nullptr;
        } else if (word.starts_with("--") && equals != std::string::npos) {
            const CLI::Option* const option = FindOption(*command, word.substr(0, equals));
            if (option != nullptr) TakeSocket(*option, word.substr(equals + 1), context);
        } else if (word.starts_with('-')) {
            const CLI::Option* const option = FindOption(*command, word);
            open = TakesValue(option) ? option : nullptr;
        } else if (CLI::App* const sub = FindCommand(*command, word)) {
            command = sub;
        }
    }
    return command;
}

Candidates CandidatesFor(CLI::App& app, Context& context, std::vector<std::string> words) {
    const std::string partial = words.back();
    words.pop_back();
    const CLI::Option* open = nullptr;
    const CLI::App* const command = Follow(app, context, words, open);
    if (open != nullptr) return ValuesOf(*open, context);
    if (partial.starts_with('-')) return OptionsOf(*command);
    const Candidates commands = CommandsOf(*command);
    return commands.empty() ? ArgumentsOf(*command, context) : commands;
}

}  // namespace

void PrintCandidates(CLI::App& app, Context& context, const std::vector<std::string>& words) {
    if (words.empty()) return;
    try {
        for (const Candidate& candidate : CandidatesFor(app, context, words)) {
            const bool fits = candidate.word.starts_with(words.back()) || candidate.word.starts_with(':');
            if (!fits) continue;
            context.console.Print(Escaped(candidate.word) + "\t" + Escaped(candidate.meaning));
        }
    } catch (const Failure&) {
        // Nothing is offered.
    }
}

}  // namespace certmgrctl
