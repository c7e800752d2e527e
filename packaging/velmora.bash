# Completion of velmora for bash: the commands and options come from the program's own help.
_velmora() {
    local word=${COMP_WORDS[COMP_CWORD]} command='' index
    for ((index = 1; index < COMP_CWORD; index++)); do
        case ${COMP_WORDS[index]} in
        -*) ;;
        *)
            command=${COMP_WORDS[index]}
            break
            ;;
        esac
    done
    local help
    help=$(velmora ${command:+"$command"} --help 2>/dev/null)
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(grep -oE -- '--[a-z][a-z-]*' <<<"$help" | sort -u)" -- "$word")
    elif [ -z "$command" ]; then
        local commands
        commands=$(sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p' <<<"$help")
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
    else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -F _velmora velmora
