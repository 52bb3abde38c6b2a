# shellcheck shell=bash
# Completes the options of korlo-settings-server in bash, those that its --help lists. What has a value is a file, or is
# known to the person alone.

_comp_cmd_korlo_settings_server()
{
    local line options=() previous=$3
    COMPREPLY=()
    [[ $previous != '=' ]] || previous=${COMP_WORDS[COMP_CWORD - 2]}
    while IFS= read -r line; do
        [[ $line =~ ^\ \ (--[a-z-]+)(\ ([^ ]+))? ]] || continue
        options+=("${BASH_REMATCH[1]}")
        if [[ $previous == "${BASH_REMATCH[1]}" && -n ${BASH_REMATCH[3]} ]]; then
            case ${BASH_REMATCH[3]} in
                FILE* | PATH) compopt -o default ;;
            esac
            return
        fi
    done < <("$1" --help 2> /dev/null)
    [[ $2 != -* ]] || mapfile -t COMPREPLY < <(compgen -W "${options[*]}" -- "$2")
}

complete -F _comp_cmd_korlo_settings_server korlo-settings-server
