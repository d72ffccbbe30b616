# bash completion for lumora
_lumora() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --interface | --log) i=$((i + 1)) ;;
            -*) ;;
            *) command=${COMP_WORDS[i]} && break ;;
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
            *) COMPREPLY=() ;;
        esac
        [[ $word == -* ]] || mapfile -t COMPREPLY < <(compgen -W 'find info version cmd subscribe send ping serve doctor' -- "$word")
        ;;
    find)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --wait) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --watch --wait' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    info)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --wait) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --wait' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    version)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --find) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --find' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    cmd)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --find) COMPREPLY=(); return ;;
            --await) COMPREPLY=(); return ;;
            --timeout) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --find --await --timeout --as --out' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    subscribe)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --find) COMPREPLY=(); return ;;
            --count) COMPREPLY=(); return ;;
            --timeout) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --find --count --timeout --as --out' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    send)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --find) COMPREPLY=(); return ;;
            --split) COMPREPLY=(); return ;;
            --linger) COMPREPLY=(); return ;;
            --await) COMPREPLY=(); return ;;
            --timeout) COMPREPLY=(); return ;;
            --as) mapfile -t COMPREPLY < <(compgen -W 'auto text hex raw' -- "$word"); return ;;
            --out) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --find --split --linger --await --timeout --as --out' -- "$word") ;;
            *) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        esac
        ;;
    ping)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --find) COMPREPLY=(); return ;;
            --service) COMPREPLY=(); return ;;
            --count) COMPREPLY=(); return ;;
            --size) COMPREPLY=(); return ;;
            --interval) COMPREPLY=(); return ;;
            --timeout) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --find --service --count --size --interval --timeout' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    serve)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --service) COMPREPLY=(); return ;;
            --exec) COMPREPLY=(); return ;;
            --every) COMPREPLY=(); return ;;
            --timeout) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --service --echo --exec --every --timeout' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    doctor)
        case $before in
            --interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$word"); return ;;
            --log) mapfile -t COMPREPLY < <(compgen -W 'trace detail state warning error off' -- "$word"); return ;;
            --listen) COMPREPLY=(); return ;;
        esac
        case $word in
            -*) mapfile -t COMPREPLY < <(compgen -W '--help --json --interface --log --listen' -- "$word") ;;
            *) COMPREPLY=() ;;
        esac
        ;;
    esac
}
complete -F _lumora lumora
