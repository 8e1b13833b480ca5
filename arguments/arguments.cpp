#include "arguments/arguments.h"

#include <CLI/CLI.hpp>

namespace arguments {
namespace {

constexpr char kBar = '|';

bool Any(const CLI::App*) {
    return true;
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : std::string(1, kBar)) + word;
    return text;
}

}  // namespace

Option Option::Required() {
    option_->required();
    if (!option_->get_option_text().empty()) option_->option_text(option_->get_option_text() + " (required)");
    return *this;
}

// Validators without a description: what is missing is a word or a number, --help says which.
Option Option::OneOf(const std::vector<std::string>& words) {
    // Its name is never shown: there words() finds them again.
    option_->check(CLI::IsMember(words).description("").name(Joined(words)));
    if (option_->get_option_text().empty()) option_->option_text(Joined(words));
    return *this;
}

Option Option::Range(std::int64_t least, std::int64_t most) {
    option_->check(CLI::Range(least, most).description(""));
    return *this;
}

Option Option::Needs(Option other) {
    option_->needs(other.option_);
    return *this;
}

Option Option::Excludes(Option other) {
    option_->excludes(other.option_);
    return *this;
}

Option Option::Hidden() {
    option_->group("");
    return *this;
}

std::string Option::long_name() const {
    return option_->get_lnames().empty() ? "" : option_->get_lnames().front();
}

std::string Option::description() const {
    return option_->get_description();
}

std::vector<std::string> Option::words() const {
    try {
        const std::string words = option_->get_validator(0)->get_name();
        return words.empty() ? std::vector<std::string>{} : CLI::detail::split(words, kBar);
    } catch (const CLI::OptionNotFound&) {
        return {};
    }
}

bool Option::takes_value() const {
    return option_->get_items_expected_max() > 0;
}

Command Command::AddCommand(const std::string& name, const std::string& what) {
    return Command(app_->add_subcommand(name, what));
}

Option Command::AddFlag(const std::string& names, bool& value, const std::string& what) {
    return Option(app_->add_flag(names, value, what));
}

Option Command::AddOption(const std::string& names, Variable variable, const std::string& kind,
                          const std::string& what) {
    const auto add = [&](auto value) { return app_->add_option(names, value.get(), what); };
    return Option(std::visit(add, variable)->option_text(kind));
}

Option Command::AddChoice(const std::string& names, const Choice& choice, const std::string& kind,
                          const std::string& what) {
    CLI::Option* const option = app_->add_option_function<int>(names, choice.take, what);
    return Option(option->transform(CLI::CheckedTransformer(choice.words))->type_name(choice.type)->option_text(kind));
}

Command Command::RequireCommand() {
    app_->require_subcommand(1);
    return *this;
}

Command Command::Group(const std::string& heading) {
    app_->group(heading);
    return *this;
}

Command Command::Footer(const std::string& text) {
    app_->footer(text);
    return *this;
}

Command Command::OnChosen(std::function<void()> run) {
    app_->callback(std::move(run));
    return *this;
}

std::string Command::name() const {
    return app_->get_name();
}

std::string Command::description() const {
    return app_->get_description();
}

std::optional<Command> Command::parent() const {
    if (app_->get_parent() == nullptr) return std::nullopt;
    return Command(app_->get_parent());
}

std::vector<Command> Command::commands() const {
    std::vector<Command> commands;
    for (CLI::App* const command : app_->get_subcommands(Any)) commands.emplace_back(command);
    return commands;
}

std::vector<Option> Command::options() const {
    std::vector<Option> options;
    for (CLI::Option* const option : app_->get_options()) options.emplace_back(option);
    return options;
}

std::optional<Option> Command::FindOption(const std::string& name) const {
    CLI::Option* const option = app_->get_option_no_throw(name);
    return option == nullptr ? std::nullopt : std::optional(Option(option));
}

Program::Program(const std::string& name, const std::string& what)
    : Command(nullptr), parser_(std::make_unique<CLI::App>(what, name)) {
    app_ = parser_.get();
}

Program::~Program() = default;

void Program::AddHelp() {
    app_->set_help_flag("-h,--help", "Print this help and exit");
}

void Program::AddVersion(const std::string& version) {
    app_->set_version_flag("--version", app_->get_name() + " " + version, "Print the version and exit");
}

void Program::AllowOptionsBehindCommands() {
    app_->fallthrough();
}

std::optional<int> Program::Parse(int argc, char** argv, int when_wrong) {
    try {
        app_->parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        return app_->exit(error) == 0 ? 0 : when_wrong;
    }
}

}  // namespace arguments
