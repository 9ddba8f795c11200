# fish completion of zent(8)
complete -c zent -f
complete -c zent -s i -x -a '(string replace -r ".*/" "" /sys/class/net/*)' -d 'interface to listen on'
complete -c zent -s R -x -d relay
complete -c zent -s g -x -d 'lowest group'
complete -c zent -s G -x -d 'highest group'
complete -c zent -s F -r -F -d 'list of groups'
complete -c zent -s l -r -F -d 'log file'
complete -c zent -s L -x -a 'err crit warn norm info debug' -d 'log level'
complete -c zent -s p -r -F -d 'pid file'
complete -c zent -s u -x -a '(__fish_complete_users)' -d 'user'
complete -c zent -s T -d 'stay in the foreground'
complete -c zent -s '?' -d 'option guide'
