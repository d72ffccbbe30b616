# bash completion for lumora-hub. Made by the target lumora_hub_pages.
_lumora_hub() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $before in
        --config | --mqtt-tls-ca | --mqtt-certificate | --mqtt-key | --mqtt-password-file | --token-file | --certificate | --key) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        --type | --ports | --idle | --forget | --consumers | --devices | --mqtt | --mqtt-services | --mqtt-prefix | --mqtt-name | --mqtt-qos | --mqtt-user | --mqtt-home-assistant-prefix | --listen | --host-name) ;;
        *) mapfile -t COMPREPLY < <(compgen -W '--help --version --config --list --type --ports --idle --forget --consumers --devices --mqtt --mqtt-services --mqtt-prefix --mqtt-name --mqtt-qos --mqtt-tls --mqtt-tls-ca --mqtt-certificate --mqtt-key --mqtt-user --mqtt-password-file --mqtt-home-assistant --mqtt-home-assistant-prefix --listen --token-file --certificate --key --host-name --allow-plain-http --no-web' -- "$word") ;;
    esac
}
complete -F _lumora_hub lumora-hub
