# bash completion of qvl(1)

_qvl()
{
    local commands='json xml corelink paths get walk merge check sfp scsi crc32c xml-events ssha send listen ask'
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
    local command='' options='' i
    COMPREPLY=()

    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ " $commands " == *" ${COMP_WORDS[i]} "* ]]; then
            command=${COMP_WORDS[i]}
            break
        fi
    done
    if [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$word")
        return
    fi

    case $command in
    json | corelink | paths) options='--pretty --raw --output --help' ;;
    xml) options='--pretty --raw --root --output --help' ;;
    get) options='--type --json --output --help' ;;
    walk) options='--output --help' ;;
    merge) options='--update --insert --insert-sort --select --json --xml --pretty --output --help' ;;
    sfp) options='--json --table --output --help' ;;
    send) options='--type --param1 --name --help' ;;
    listen) options='--json --count --help' ;;
    ask) options='--update --insert --json --timeout --help' ;;
    check | scsi | crc32c | xml-events | ssha) options='--help' ;;
    esac

    if [[ $word != -* ]] && ((COMP_CWORD == i + 1)); then
        case $command in
        scsi) mapfile -t COMPREPLY < <(compgen -W 'sense opcode status standard decode' -- "$word") && return ;;
        ssha) mapfile -t COMPREPLY < <(compgen -W 'make check' -- "$word") && return ;;
        esac
    fi

    compopt -o filenames 2>/dev/null
    if [[ $command == send && $previous == @(-t|--type) ]]; then
        mapfile -t COMPREPLY < <(compgen -W 'query update insert' -- "$word")
    elif [[ $previous == --root || ($word != -* && $command == @(listen|ask)) ]]; then
        return # a number or a text of the user's own
    elif [[ $command == send && $previous == @(--param1|--name) ]]; then
        return
    elif [[ $word == -* && $previous != -o && $previous != --output ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    elif [[ $command == @(get|walk) && -f ${COMP_WORDS[i+1]} ]] && ((COMP_CWORD > i + 1)) &&
         [[ $previous != -o && $previous != --output ]]; then
        # The next segment of a path, from the document itself.
        local paths
        paths=$("${COMP_WORDS[0]}" paths --pretty "${COMP_WORDS[i+1]}" 2>/dev/null) || return
        compopt -o nospace 2>/dev/null
        mapfile -t COMPREPLY < <(
            while IFS= read -r line; do
                line=${line%%=*}
                [[ $line == "$word"* ]] || continue
                rest=${line#"$word"}
                if [[ $rest == *.* ]]; then
                    printf '%s\n' "$word${rest%%.*}."
                else
                    printf '%s\n' "$line"
                fi
            done <<<"$paths" | grep -E '^[A-Za-z0-9_.]+$' | sort -u
        )
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}

complete -F _qvl qvl
