# SPDX-License-Identifier: MIT
# Completion of the tools' command lines: options as each tool itself names them in --help; installed once for each tool.
_kavqtglue_tool() {
    local cur prev words cword split
    _init_completion -s || return
    case $prev in
    -c | --comm) COMPREPLY=($(compgen -W '/dev/tty[AU]* /dev/ttyS* /dev/serial/by-id/*' -- "$cur")) ;;
    --source | --error | --from | --to | --seconds | --speed | --request | --clear | --every) ;; # numbers
    *)
        case $1:$cur in
        *:-*) COMPREPLY=($(compgen -W '$(_parse_help "$1")' -- "$cur")) ;;
        *bus_monitor:*)
            _available_interfaces
            local interfaces=("${COMPREPLY[@]}")
            _filedir
            COMPREPLY+=("${interfaces[@]}")
            ;;
        *) _filedir ;;
        esac
        ;;
    esac
} && complete -F _kavqtglue_tool vorn_monitor bus_monitor cds_view history_dump nv_dump trace_view
