# Completion of lyrctl for bash: source it, or install it as
# /usr/share/bash-completion/completions/lyrctl.
#
# What may stand where is what 'lyrctl --complete' says.

_lyrctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local i word words=() choices=() names=()
    COMPREPLY=()
    if [[ $previous == --control ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ ${COMP_WORDS[i]} != = ]] && words+=("${COMP_WORDS[i]}")
    done
    [[ $current == = ]] && current=
    mapfile -t choices < <("${COMP_WORDS[0]}" --complete "=$current" "${words[@]}" 2>/dev/null)
    if [[ ${choices[-1]-} == FILE ]]; then
        unset 'choices[-1]'
        compopt -o filenames 2>/dev/null
        mapfile -t names < <(compgen -f -- "$current")
    fi
    [[ ${#words[@]} -eq 0 && $current == -* ]] &&
        mapfile -t -O "${#choices[@]}" choices < <(compgen -W '--control --version' -- "$current")
    COMPREPLY=("${choices[@]}" "${names[@]}")
}

complete -F _lyrctl lyrctl
