# fish completion for kestrelbridge.
complete -c kestrelbridge -f
complete -c kestrelbridge -s i -l iface -x -a '(command ls /sys/class/net)' -d 'the Wi-Fi interface, for log lines'
complete -c kestrelbridge -s h -l host -x -d 'address of the camera'
complete -c kestrelbridge -s p -l port -x -d 'UDP port of the camera'
complete -c kestrelbridge -s d -l dst-host -x -d 'address of the main application'
complete -c kestrelbridge -s s -l dst-port -x -d 'UDP port of the main application'
complete -c kestrelbridge -s v -l verbose -d 'more lines at the start'
complete -c kestrelbridge -l low-latency -d 'publish a picture as soon as it is whole'
complete -c kestrelbridge -l help -d 'show the options'
