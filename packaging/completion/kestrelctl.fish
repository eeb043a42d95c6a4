# fish completion for kestrelctl. Subcommands, options and channels come from kestrelctl itself, so this
# file has no list of its own that could grow old.

function __kestrelctl_subcommands
    kestrelctl --help 2>/dev/null | sed -nE '/^Subcommands:/,/^$/ s/^  ([a-z]+) .*/\1/p'
end

function __kestrelctl_options
    set -l words (commandline -opc)
    kestrelctl $words[2] --help 2>/dev/null | sed -nE 's/^ +(-.,)?(--[a-z][a-z-]*).*/\2/p'
end

function __kestrelctl_channels
    kestrelctl rc --help 2>/dev/null | sed -nE '/^Channels by name:/,$ s/^  ([a-z_]+) .*/\1=/p'
end

complete -c kestrelctl -f
complete -c kestrelctl -n __fish_use_subcommand -a '(__kestrelctl_subcommands) help --help --version'
complete -c kestrelctl -n '__fish_seen_subcommand_from help' -a '(__kestrelctl_subcommands)'
complete -c kestrelctl -n 'not __fish_use_subcommand; and not __fish_seen_subcommand_from help' -a '(__kestrelctl_options)'
complete -c kestrelctl -n '__fish_seen_subcommand_from rc' -a '(__kestrelctl_channels)'
for option in clip file journal output
    complete -c kestrelctl -n 'not __fish_use_subcommand' -l $option -r -F
end
