# Completion for vindra(1). The words of an option are counted, since only some are files.

# Succeeds when the word under the cursor stands for $argv[1]: port, option, ssl_port, key, crt, host
# or local_port.
function __vindra_wants
    set -l place port
    set -l rest
    for word in (commandline -opc)[2..]
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

complete -c vindra -f
complete -c vindra -n '__vindra_wants option' -a '-ssl' -d 'Serve HTTPS: port, key, certificate'
complete -c vindra -n '__vindra_wants option' -a '-map' -d 'Forward a host: Host header, local port'
complete -c vindra -n '__vindra_wants key; or __vindra_wants crt' -F
complete -c vindra -n '__vindra_wants local_port' -a '-1' -d 'Echo handler'
