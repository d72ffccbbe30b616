# bash completion for lumora. The program itself says what may stand for the last word.
_lumora() {
    local word=${COMP_WORDS[COMP_CWORD]} answer line
    COMPREPLY=()
    mapfile -t answer < <(lumora --print completions -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    case ${answer[0]} in
        files) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        folders) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
    esac
    for line in "${answer[@]:1}"; do
        # Types and services come from the network, so they are quoted.
        [[ $line != "$word"* ]] || COMPREPLY+=("$(printf %q "${line%%$'\t'*}")")
    done
}
complete -F _lumora lumora
