# shellcheck shell=bash
# Completion for vindra(1) and vindra-check(1). The words of an option are counted, since only some are files.

# Names what the word under the cursor stands for: port, option, ssl_port, key, crt, host, local_port.
_vindra_place() {
    local word last=""
    local words=() rest=()
    # bash cuts words at colons: a host with its port is one.
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        if ((${#words[@]})) && [[ $word == :* || $last == *: ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
        last=$word
    done

    local place=port
    for word in "${words[@]:0:${#words[@]}-1}"; do
        if ((${#rest[@]})); then
            rest=("${rest[@]:1}")
        elif [[ $place != port && $word == -ssl ]]; then
            rest=(ssl_port key crt)
        elif [[ $place != port && $word == -map ]]; then
            rest=(host local_port)
        fi
        place=${rest[0]:-option}
    done
    echo "$place"
}

_vindra() {
    local current=${COMP_WORDS[COMP_CWORD]}
    case $(_vindra_place) in
        option) mapfile -t COMPREPLY < <(compgen -W '-ssl -map' -- "$current") ;;
        key | crt) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        local_port) mapfile -t COMPREPLY < <(compgen -W '-1' -- "$current") ;;
        *) COMPREPLY=() ;;
    esac
}

# Its own options, and behind "--" the program's arguments.
_vindra_check() {
    local current=${COMP_WORDS[COMP_CWORD]} at
    for ((at = 1; at < COMP_CWORD; ++at)); do
        if [[ ${COMP_WORDS[at]} == -- ]]; then
            COMP_WORDS=(vindra "${COMP_WORDS[@]:at+1}")
            ((COMP_CWORD -= at))
            _vindra
            return
        fi
    done
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        -d) COMPREPLY=() ;;
        -f) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        -u) mapfile -t COMPREPLY < <(compgen -u -- "$current") ;;
        *) mapfile -t COMPREPLY < <(compgen -W '-d -f -u --' -- "$current") ;;
    esac
}

complete -o filenames -F _vindra vindra
complete -o filenames -F _vindra_check vindra-check
