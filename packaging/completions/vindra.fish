# Completion for vindra(1) and vindra-check(1). The words of an option are counted, since only some are files.

# Succeeds when the word under the cursor stands for $argv[1]: port, option, ssl_port, key, crt, host
# or local_port.
function __vindra_wants
    set -l place port
    set -l rest
    set -l words (commandline -opc)
    # Of vindra-check's words, those behind "--" are the program's.
    if test $words[1] = vindra-check
        set -l end (contains -i -- -- $words); or return
        set words $words[$end..]
    end
    for word in $words[2..]
        if set -q rest[1]
            set -e rest[1]
        else if test $place != port; and test "$word" = -ssl
            set rest ssl_port key crt
        else if test $place != port; and test "$word" = -map
            set rest host local_port
        end
        set place option
        set -q rest[1]; and set place $rest[1]
    end
    test $place = $argv[1]
end

for program in vindra vindra-check
    complete -c $program -f
    complete -c $program -n '__vindra_wants option' -a '-ssl' -d 'Serve HTTPS: port, key, certificate'
    complete -c $program -n '__vindra_wants option' -a '-map' -d 'Forward a host: Host header, local port'
    complete -c $program -n '__vindra_wants key; or __vindra_wants crt' -F
    complete -c $program -n '__vindra_wants local_port' -a '-1' -d 'Echo handler'
end

set -l own 'not contains -- -- (commandline -opc)'
complete -c vindra-check -n $own -o d -x -d 'Warn of an end in fewer days'
complete -c vindra-check -n $own -o f -r -F -d 'File with VINDRA_ARGS'
complete -c vindra-check -n $own -o u -x -a '(__fish_complete_users)' -d 'User of the service'
complete -c vindra-check -n $own -a '--' -d 'Arguments of vindra follow'
