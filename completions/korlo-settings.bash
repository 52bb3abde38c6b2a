# shellcheck shell=bash
# Completes the command line of korlo-settings in bash. The tool itself knows what may stand there: its own commands and
# options, and the groups and keys of the settings (`korlo-settings complete`). What is done here takes the line apart
# into words, without running anything that stands in it, and quotes the answer for the place where the cursor is.

_comp_cmd_korlo_settings()
{
    # 1. Take the line apart. `state` is n in no quotes, s in '', d in "" and e in $'', whose inside is in `escaped`.
    # `word` is what the tool would get, `kept` the part of it before $2, which is what readline is going to replace: that
    # begins behind an open quote, and behind what breaks words for readline, such as ':' and '='.
    local line=${COMP_LINE:0:COMP_POINT} words=() word='' kept='' escaped='' has_begun='' is_file='' state=n char next i
    for ((i = 0; i <= ${#line}; i++)); do
        char=${line:i:1} next=${line:i+1:1}
        ((i != ${#line} - ${#2})) || kept=$word
        case $state$char in
            "s'" | 'd"') state=n ;;
            "e'")
                eval "word+=\$'$escaped'" # which holds no quote without a backslash: nothing in it can run
                state=n
                ;;
            s*) word+=$char ;;
            d\\)
                [[ $next == [\\\"\$\`] ]] || word+=$char
                word+=$next
                ((i += 1))
                ;;
            d*) word+=$char ;;
            e\\)
                escaped+=${next:+$char$next}
                ((i += 1))
                ;;
            e*) escaped+=$char ;;
            n[[:space:]])
                if [[ $has_begun ]]; then
                    [[ $is_file ]] || words+=("$word")
                    is_file=''
                fi
                word='' has_begun=''
                ;;
            n[\<\>])
                word='' has_begun='' is_file=1
                ;;
            *)
                has_begun=1
                case $char$next in
                    "'"* | \"*)
                        [[ $char == "'" ]] && state=s || state=d
                        ;;
                    "\$'" | "\$\"")
                        escaped=''
                        [[ $next == "'" ]] && state=e || state=d
                        ((i += 1))
                        ;;
                    \\*)
                        word+=$next
                        ((i += 1))
                        ;;
                    \~/) [[ $word ]] && word+=$char || word=$HOME ;;
                    *) word+=$char ;;
                esac
                ;;
        esac
    done
    [[ $state != e ]] || eval "word+=\$'$escaped'"

    # 2. Ask.
    COMPREPLY=()
    local answer=(files)
    [[ $is_file ]] ||
        mapfile -d '' -t answer < <("${words[0]}" complete --null -- "${words[@]:1}" "$word" 2> /dev/null)
    if [[ ${answer[0]-} == files ]]; then
        compopt -o default
        return
    fi

    # 3. Quote. Within quotes a name stands as it is, if it can. Else it begins with two more of them, the first of
    # which readline takes for the open one and does not repeat, and ends with two, so that readline adds none.
    local name mark="'"
    [[ $state != d ]] || mark='"'
    for name in "${answer[@]:1}"; do
        name=${name:${#kept}}
        case $state in
            s) [[ $name == *"'"* || $name == *[![:print:]]* ]] ;;
            d) [[ $name == *[\\\"\$\`!]* || $name == *[![:print:]]* ]] ;;
            *) ;;
        esac && printf -v name '%s%q%s' "$mark$mark" "$name" "$mark$mark"
        [[ $state != n ]] || name=${name:2:-2}
        COMPREPLY+=("$name")
    done
}

complete -F _comp_cmd_korlo_settings korlo-settings
