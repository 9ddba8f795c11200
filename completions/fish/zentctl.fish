# fish completion of zentctl(1)
function __zentctl_interfaces
    for path in /sys/class/net/*
        string replace -r '.*/' '' $path
    end
end

complete -c zentctl -f
complete -c zentctl -n __fish_use_subcommand -a check -d 'why the agent would fail or stay silent'
complete -c zentctl -n __fish_use_subcommand -a lint -d 'what is wrong in a list of groups'
complete -c zentctl -n __fish_use_subcommand -a expand -d 'a plain list of prefixes and ranges'
complete -c zentctl -n __fish_use_subcommand -a query -d 'a querier of IGMP version 2'
complete -c zentctl -n __fish_use_subcommand -a groups -d 'the joined groups of a zentmon'
complete -c zentctl -n __fish_use_subcommand -a watch -d 'follow the events of a zentmon'
complete -c zentctl -n __fish_use_subcommand -a help -d 'help on a command'
complete -c zentctl -n 'not __fish_use_subcommand' -l json -d 'one JSON object'
complete -c zentctl -n 'not __fish_use_subcommand' -l help -d help
complete -c zentctl -n '__fish_seen_subcommand_from check query' -a '(__zentctl_interfaces)'
complete -c zentctl -n '__fish_seen_subcommand_from check lint' -s g -x -d 'lowest group'
complete -c zentctl -n '__fish_seen_subcommand_from check lint' -s G -x -d 'highest group'
complete -c zentctl -n '__fish_seen_subcommand_from check' -l target -x -d 'the relay'
complete -c zentctl -n '__fish_seen_subcommand_from check' -l list -r -F -d 'list of groups'
complete -c zentctl -n '__fish_seen_subcommand_from check' -l watch -x -d 'how long to listen'
complete -c zentctl -n '__fish_seen_subcommand_from lint expand' -F
complete -c zentctl -n '__fish_seen_subcommand_from lint' -l fix -d 'print the list that the agent takes'
complete -c zentctl -n '__fish_seen_subcommand_from lint' -l strict -d 'warnings count'
complete -c zentctl -n '__fish_seen_subcommand_from expand' -l max -x -d 'at most so many'
complete -c zentctl -n '__fish_seen_subcommand_from query' -l once -d 'one query and its answers'
complete -c zentctl -n '__fish_seen_subcommand_from query' -l interval -x -d 'seconds between queries'
complete -c zentctl -n '__fish_seen_subcommand_from query' -l force -d 'beside a version 3 querier too'
complete -c zentctl -n '__fish_seen_subcommand_from groups' -l filter -x -d 'groups or agents'
complete -c zentctl -n '__fish_seen_subcommand_from groups' -l agent -x -d 'one agent'
complete -c zentctl -n '__fish_seen_subcommand_from groups watch' -a http://127.0.0.1:8580
complete -c zentctl -n '__fish_seen_subcommand_from help' -a 'check lint expand query groups watch codes'
