# bash completion for lumora
_lumora() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' type='' position=-1 i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --interface | --log | -a | --address | -w | --wait | -A | --await | -t | --timeout | --as | -o | --out | -F | --format | -c | --count | -m | --text | -s | --split | --linger | -s | --service | -b | --size | -i | --interval | -x | --exec | -c | --on-command | --every | --from | --expires | --listen) i=$((i + 1)) ;;
            -?*) ;;
            *)
                case $position in
                    -1) command=${COMP_WORDS[i]} ;;
                    0) type=${COMP_WORDS[i]} ;;
                esac
                position=$((position + 1)) ;;
        esac
    done
    case $command in
    '')
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log' -- "$word") ;;
            *) case $position in
            esac ;;
        esac
        [[ $word == -* ]] || mapfile -t COMPREPLY < <(compgen -W 'find info version cmd subscribe send ping shell serve key doctor help' -- "$word")
        ;;
    find)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --watch --wait' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    info)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    version)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    cmd)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
            -A | --await) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print services "$type" 2>/dev/null)" -- "$word"); return ;;
            -t | --timeout) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            -o | --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
            -F | --format) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait --await --timeout --as --out --format' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
                1) COMPREPLY=() ;;
                2) COMPREPLY=() ;;
            esac ;;
        esac
        ;;
    subscribe)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
            -c | --count) COMPREPLY=(); return ;;
            -t | --timeout) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            -o | --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
            -F | --format) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait --all --again --count --timeout --as --out --format' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
                *) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print services "$type" 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    send)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
            -m | --text) COMPREPLY=(); return ;;
            -s | --split) COMPREPLY=(); return ;;
            --linger) COMPREPLY=(); return ;;
            -A | --await) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print services "$type" 2>/dev/null)" -- "$word"); return ;;
            -t | --timeout) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            -o | --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
            -F | --format) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait --text --lines --split --linger --await --timeout --as --out --format' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
                *) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
            esac ;;
        esac
        ;;
    ping)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
            -s | --service) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print services "$type" 2>/dev/null)" -- "$word"); return ;;
            -c | --count) COMPREPLY=(); return ;;
            -b | --size) COMPREPLY=(); return ;;
            -i | --interval) COMPREPLY=(); return ;;
            -t | --timeout) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait --service --count --size --interval --timeout' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    shell)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            -o | --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
            -F | --format) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait --again --as --out --format' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    serve)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -s | --service) COMPREPLY=(); return ;;
            -x | --exec) COMPREPLY=(); return ;;
            -c | --on-command) COMPREPLY=(); return ;;
            --every) COMPREPLY=(); return ;;
            -t | --timeout) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --service --echo --exec --on-command --every --timeout' -- "$word") ;;
            *) case $position in
                0) COMPREPLY=() ;;
            esac ;;
        esac
        ;;
    key)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --from) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
            --expires) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --from --expires' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W 'new show add use revoke' -- "$word") ;;
                1) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
                2) COMPREPLY=() ;;
            esac ;;
        esac
        ;;
    doctor)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            -a | --address) COMPREPLY=(); return ;;
            -w | --wait) COMPREPLY=(); return ;;
            --listen) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --address --wait --listen' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W "$(lumora --print types 2>/dev/null)" -- "$word") ;;
            esac ;;
        esac
        ;;
    help)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log' -- "$word") ;;
            *) case $position in
                0) mapfile -t COMPREPLY < <(compgen -W 'find info version cmd subscribe send ping shell serve key doctor' -- "$word") ;;
            esac ;;
        esac
        ;;
    esac
}
complete -F _lumora lumora
