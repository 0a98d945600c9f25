# Completion of lyrctl for bash: source it, or install it as
# /usr/share/bash-completion/completions/lyrctl.
#
# What it knows of the commands comes from 'lyrctl --list-commands': a line for each, with its name,
# a tab and its usage.

# Sets `given` to the words of the command so far, without lyrctl's own options.
_lyrctl_given() {
    local i words=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --json | --help | -h) ;;
        --control) i=$((i + 1)) ;;
        *) words+=("${COMP_WORDS[i]}") ;;
        esac
    done
    given="${words[*]}"
}

# Sets `next` to the words that go on with the name of a command, and `command` and `usage` to the
# command that the words so far begin with.
_lyrctl_commands() {
    local name its_usage rest
    while IFS=$'\t' read -r name its_usage; do
        if [[ -z $given || $name == "$given "* ]]; then
            rest=${name#"$given"}
            rest=${rest# }
            next+=" ${rest%% *}"
        fi
        if [[ -n $given && "$given " == "$name "* && ${#name} -gt ${#command} ]]; then
            command=$name
            usage=${its_usage//[][]/}
        fi
    done < <("${COMP_WORDS[0]}" --list-commands 2>/dev/null)
}

_lyrctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local given='' next='' command='' usage='' choices='' option
    _lyrctl_given
    _lyrctl_commands
    COMPREPLY=()
    if [[ $previous == --control || $previous == --capture ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    for option in $usage; do
        [[ $option == --* && " $given " != *" $option "* ]] && choices+=" $option"
    done
    if [[ $current == -* ]]; then
        choices+=" --help --json"
        [[ -z $given ]] && choices+=" --control --version"
    else
        choices+=" $next"
    fi
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current" | sort -u)
    if [[ $command =~ ^(recon (run|diff)|save|diff)$ && $current != -* ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
    fi
}

complete -F _lyrctl lyrctl
