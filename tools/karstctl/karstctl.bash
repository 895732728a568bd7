# SPDX-License-Identifier: Apache-2.0
# bash completion for karstctl: commands, sub-commands, image types and slots, certificate
# names, files and options. Installed as share/bash-completion/completions/karstctl; it needs
# nothing from the bash-completion package.

# The operands of a command ("cmd sub"), in order, and its options.
_karstctl_operands() {
    case $1 in
    "image auth" | "image update" | "image upload" | "image dump" | "image delete")
        echo "type slot"
        ;;
    "image progress") echo "type" ;;
    "cert get") echo "cert" ;;
    "cert replace" | "cert replace-ra") echo "- file" ;;
    "cert auth" | "verify") echo "file file" ;;
    "sigtbl" | "sign" | "inventory import" | "attest ra-refresh") echo "file" ;;
    "bios-4byte") echo "switch" ;;
    esac
}

_karstctl_options() {
    case $1 in
    "image auth" | "image upload") echo "--file --buffer --extended" ;;
    "image update") echo "--file --buffer --extended --backup --evidence --async" ;;
    "image dump" | "attest dump" | "attest blk-get" | "cert csr") echo "-o --output" ;;
    "env get" | "inventory get" | "otp getkey" | "otp getsn") echo "-o --output" ;;
    "image progress") echo "--clear --json" ;;
    "memreg" | "sigtbl" | "attest prov-query") echo "--json" ;;
    "cert get") echo "-o --output --json" ;;
    "cert replace" | "cert replace-ra") echo "--option" ;;
    "sign") echo "-o --output --option" ;;
    "otp prog-usr") echo "--hex --file" ;;
    esac
}

_karstctl_subcommands() {
    case $1 in
    env) echo "get set" ;;
    inventory) echo "get set import" ;;
    image) echo "auth upload update dump delete progress" ;;
    cpld) echo "read write" ;;
    attest) echo "dump blk-get prov-query ra-refresh" ;;
    cert) echo "get replace replace-ra csr auth" ;;
    otp) echo "getkey prog-usr getsn" ;;
    esac
}

_karstctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local words=() i
    # The words before the current one that are not options or option values.
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        -o | --output | --file | --buffer | --hex | --option) ((i++)) ;;
        -*) ;;
        *) words+=("${COMP_WORDS[i]}") ;;
        esac
    done
    case $prev in
    -o | --output | --file | --buffer)
        COMPREPLY=($(compgen -f -- "$cur"))
        return
        ;;
    --hex | --option) return ;;
    esac
    if ((${#words[@]} == 0)); then
        COMPREPLY=($(compgen -W "env inventory memreg image cpld sigtbl bios-4byte fpga-ready
            attest cert sign verify validate otp --help --version" -- "$cur"))
        return
    fi
    local command=${words[0]} subs
    subs=$(_karstctl_subcommands "$command")
    if [[ -n $subs && ${#words[@]} == 1 ]]; then
        COMPREPLY=($(compgen -W "$subs --help" -- "$cur"))
        return
    fi
    [[ -n $subs ]] && command+=" ${words[1]}"
    local operands=($(_karstctl_operands "$command")) taken=$((${#words[@]} - 1))
    [[ -n $subs ]] && taken=$((taken - 1))
    local choices="--help $(_karstctl_options "$command")"
    case ${operands[taken]} in
    type) choices+=" bmc bios cpld bpncpld nvfpga nvbios scmfpga pdbfpga erotmcu" ;;
    slot) choices+=" active staging backup golden evidence backup-st golden-st" ;;
    cert) choices+=" root second third device object" ;;
    switch) choices+=" on off" ;;
    file) COMPREPLY=($(compgen -f -- "$cur")) ;;
    esac
    COMPREPLY+=($(compgen -W "$choices" -- "$cur"))
}

complete -F _karstctl karstctl
