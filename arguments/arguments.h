// Command lines of the programs: commands, options, --help, --version, and what is said about wrong arguments. A Program
// owns all that is added to it; Command and Option are handles, whose copies mean the same one and end with the
// Program. Variables that options are bound to live as long. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

// The parser, known to arguments.cpp alone.
namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace arguments {

/// An option with a value, a flag, or what stands without an option.
class Option {
  public:
    explicit Option(CLI::Option* option) : option_(option) {}

    /// --help says so beside the kind of the value.
    Option Required();
    /// Without a kind --help shows the words.
    Option OneOf(const std::vector<std::string>& words);
    Option Range(std::int64_t least, std::int64_t most);
    Option Needs(Option other);
    Option Excludes(Option other);
    /// Not in --help.
    Option Hidden();

    /// Without dashes; empty when there is none.
    std::string long_name() const;
    std::string description() const;
    bool takes_value() const;
    /// Those of OneOf; none when it takes other values.
    std::vector<std::string> words() const;

  private:
    CLI::Option* option_;
};

/// What an option is bound to.
using Variable = std::variant<std::reference_wrapper<std::string>, std::reference_wrapper<std::vector<std::string>>,
                              std::reference_wrapper<int>, std::reference_wrapper<std::uint16_t>,
                              std::reference_wrapper<std::uint32_t>, std::reference_wrapper<std::size_t>>;

/// A command, or the program itself. Names of options are like "-o,--output"; one without dashes is that of what stands
/// without an option. --help shows `kind` for the value ("FILE"), and `what` it is for.
class Command {
  public:
    explicit Command(CLI::App* app) : app_(app) {}

    Command AddCommand(const std::string& name, const std::string& what);
    Option AddFlag(const std::string& names, bool& value, const std::string& what = "");
    Option AddOption(const std::string& names, Variable variable, const std::string& kind = "",
                     const std::string& what = "");
    /// An option whose words stand for values of an enumeration, or for true and false.
    template <typename Value>
    Option AddChoice(const std::string& names, Value& value, const std::map<std::string, Value>& words,
                     const std::string& kind = "", const std::string& what = "") {
        Choice choice{std::is_same_v<Value, bool> ? "BOOLEAN" : "ENUM", {}, {}};
        for (const auto& [word, meant] : words) choice.words[word] = static_cast<int>(meant);
        choice.take = [&value](int chosen) { value = static_cast<Value>(chosen); };
        return AddChoice(names, choice, kind, what);
    }

    /// One of its commands has to be given.
    Command RequireCommand();
    /// The heading that it stands under in --help. Empty: it is not there.
    Command Group(const std::string& heading);
    /// Last words of --help. Commands that are added later have the same unless they get others.
    Command Footer(const std::string& text);
    /// Called by Program::Parse; may throw.
    Command OnChosen(std::function<void()> run);

    std::string name() const;
    std::string description() const;
    /// Nothing: this is the program.
    std::optional<Command> parent() const;
    std::vector<Command> commands() const;
    std::vector<Option> options() const;
    /// By a name with its dashes.
    std::optional<Option> FindOption(const std::string& name) const;

  protected:
    CLI::App* app_;

  private:
    struct Choice {
        const char* type;
        std::map<std::string, int> words;
        std::function<void(int)> take;
    };
    Option AddChoice(const std::string& names, const Choice& choice, const std::string& kind, const std::string& what);
};

/// Help and version stand in --help in the order in which they are added.
class Program : public Command {
  public:
    Program(const std::string& name, const std::string& what);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void AddHelp();
    void AddVersion(const std::string& version);
    /// Its options may stand behind commands that are added later.
    void AllowOptionsBehindCommands();

    /// Sets the variables and calls what was chosen. Nothing, or the code to exit with: 0 after --help and --version,
    /// `when_wrong` when standard error was told what is wrong with the arguments.
    std::optional<int> Parse(int argc, char** argv, int when_wrong);

  private:
    std::unique_ptr<CLI::App> parser_;
};

}  // namespace arguments
