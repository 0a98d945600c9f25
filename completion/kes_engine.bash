# Completion of kes_engine for bash: source it, or install it as
# /usr/share/bash-completion/completions/kes_engine. What it knows of the options comes from
# 'kes_engine --help'.

_kes_engine() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} options interface
    COMPREPLY=()
    case $previous in
    --report) mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" --help 2>/dev/null |
        sed -n 's/^ *--report \([a-z|]*\).*/\1/p' | tr '|' ' ')" -- "$current") ;;
    --listen)
        for interface in /sys/class/net/*; do
            [[ ${interface##*/} == "$current"* ]] && COMPREPLY+=("${interface##*/}")
        done
        ;;
    --control-group) mapfile -t COMPREPLY < <(compgen -g -- "$current") ;;
    --capability)
        compopt -o nospace 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -W "WCWP_SPEC_SVC_NUM=" -- "$current")
        ;;
    --loop | --rate | --speed | --frames | --filter | --workers | --rx-port | --vrf | --if-map | \
        --local | --cause-id | --metrics | --buffer-size) ;;
    *)
        if [[ $current == -* ]]; then
            options=$("${COMP_WORDS[0]}" --help 2>/dev/null |
                sed -n '/^Examples:/q; s/^  \(-h,\)\{0,1\}\(--[a-z-]*\).*/\2/p')
            mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        else
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
        fi
        ;;
    esac
}

complete -F _kes_engine kes_engine
