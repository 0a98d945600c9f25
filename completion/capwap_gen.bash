# Completion of capwap_gen for bash: source it, or install it as
# /usr/share/bash-completion/completions/capwap_gen. What it knows comes from 'capwap_gen --help'.

_capwap_gen() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} help words
    COMPREPLY=()
    help=$("${COMP_WORDS[0]}" --help 2>/dev/null)
    case $previous in
    --out | --commands)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        ;;
    --mix)
        compopt -o nospace 2>/dev/null
        words="all $(sed -n '/^Kinds of traffic/,/^A kind/s/^  \([a-z-]*\) .*/\1/p' <<<"$help")"
        local before=""
        [[ $current == *,* ]] && before=${current%,*},
        mapfile -t COMPREPLY < <(compgen -P "$before" -W "$words" -- "${current##*,}")
        ;;
    *)
        words=$(sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z0-9-]*\).*/\2/p' <<<"$help")
        [[ $current == -* ]] && mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
        ;;
    esac
}

complete -F _capwap_gen capwap_gen
