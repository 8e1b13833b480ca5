#include "cli/completion.h"

#include <map>

#include "cli/commands/commands.h"

namespace certmgrctl {
namespace {

constexpr const char* kBash = R"(# bash completion of certmgrctl
_certmgrctl() {
    local word="${COMP_WORDS[COMP_CWORD]}" line candidates=()
    COMPREPLY=()
    while IFS=$'\t' read -r line _; do
        if [ "$line" = :files ]; then
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
        fi
        printf -v line %q "$line"
        candidates+=("$line")
    done < <(certmgrctl __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    COMPREPLY=("${candidates[@]}")
}
complete -F _certmgrctl certmgrctl
)";

constexpr const char* kZsh = R"(#compdef certmgrctl
_certmgrctl() {
    local line
    local -a candidates
    for line in "${(@f)$(certmgrctl __complete "${(@)words[2,CURRENT]}" 2>/dev/null)}"; do
        [[ $line == :files* ]] && { _files; return }
        [[ -n $line ]] && candidates+=("${${line%%$'\t'*}//:/\\:}:${line#*$'\t'}")
    done
    _describe certmgrctl candidates
}
if [[ $funcstack[1] == _certmgrctl ]]; then
    _certmgrctl "$@"
else
    compdef _certmgrctl certmgrctl
fi
)";

constexpr const char* kFish = R"(# fish completion of certmgrctl
function __certmgrctl_complete
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    for line in (certmgrctl __complete $words[2..-1] "$word" 2>/dev/null)
        if string match -q ':files*' -- $line
            __fish_complete_path "$word"
            return
        end
        echo $line
    end
end
complete -c certmgrctl -f -a '(__certmgrctl_complete)'
)";

const std::map<std::string, const char*> kScripts{{"bash", kBash}, {"zsh", kZsh}, {"fish", kFish}};

}  // namespace

void AddCompletionCommands(Command& app, Context& context) {
    const auto shell = std::make_shared<std::string>();
    Command command = app.AddCommand("completion", "Print the completion script of a shell").Group(kGroupShell);
    command.Footer("For bash, in ~/.bashrc:  source <(certmgrctl completion bash)");
    std::vector<std::string> shells;
    shells.reserve(kScripts.size());
    for (const auto& [name, script] : kScripts) shells.push_back(name);
    command.AddOption("shell", *shell, "SHELL", "bash, zsh or fish").Required().OneOf(shells);
    OnChosen(command, context, shell, [](Context& c, const std::string& name) { c.console.Print(kScripts.at(name)); });
}

}  // namespace certmgrctl
