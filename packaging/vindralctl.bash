# Completion of vindralctl for bash. A test holds it to the program's table of commands.

_vindralctl() {
    local cur prev words cword
    _init_completion -n := || return

    local global="--url --token --token-file --ca --json --ascii --no-color --help --version"
    local commands="agents tests results series events ledger watch check enrol revoke tokens secret fleet changes version"

    # The command and its sub-command: the first words that are no options and no values of any.
    local command="" sub="" i word
    for ((i = 1; i < cword; i++)); do
        word=${words[i]}
        case $word in
        --json | --ascii | --no-color | --help | --version | --fail | --rate | --quiet | --yes | --all | --open | -h | --*=*) ;;
        --*) ((i++)) ;;
        *)
            if [[ -z $command ]]; then
                command=$word
            elif [[ -z $sub ]]; then
                sub=$word
            fi
            ;;
        esac
    done

    case $prev in
    --token-file | --ca)
        _filedir
        return
        ;;
    --state)
        if [[ $command == tests ]]; then
            COMPREPLY=($(compgen -W "ok problem unknown stale" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "ok problem unknown stale silent" -- "$cur"))
        fi
        return
        ;;
    --type)
        local type types=(network discovery process cpu disk memory ping http snmp mysql
            "load average" "snmp table")
        COMPREPLY=()
        for type in "${types[@]}"; do
            [[ $type != "$cur"* ]] || COMPREPLY+=("$(printf '%q' "$type")")
        done
        return
        ;;
    --kind)
        COMPREPLY=($(compgen -W "result event agent change" -- "$cur"))
        return
        ;;
    --role)
        COMPREPLY=($(compgen -W "viewer operator admin" -- "$cur"))
        return
        ;;
    --outcome)
        COMPREPLY=($(compgen -W "sent confirmed unanswered impossible" -- "$cur"))
        return
        ;;
    --from | --to)
        COMPREPLY=($(compgen -W "-1h -2h -1d -1w now today yesterday" -- "$cur"))
        return
        ;;
    --url | --token | --agent | --test | --q | --limit | --points | --value | --height | --ends | --account | --key | --group | --revision | --wait)
        return
        ;;
    esac

    local options
    case $command in
    "") options="$commands" ;;
    agents)
        case $sub in
        show | retire | refuse) options="" ;;
        waiting) options="--limit" ;;
        admit) options="--key" ;;
        *) options="show retire waiting admit refuse --state --group --q --limit --fail" ;;
        esac
        ;;
    tests)
        case $sub in
        show) options="" ;;
        *) options="show --agent --group --state --type --q --limit --fail" ;;
        esac
        ;;
    results) options="--from --to --limit" ;;
    series) options="--from --to --points --rate --value --height" ;;
    events) options="--agent --test --group --type --state --q --from --to --limit" ;;
    ledger) options="--agent --from --to --limit --fail" ;;
    watch) options="--kind --agent --test --limit" ;;
    check | revoke) options="" ;;
    enrol) options="--account --quiet" ;;
    tokens)
        case $sub in
        list) options="--limit" ;;
        add) options="--role --ends" ;;
        remove) options="" ;;
        *) options="list add remove --limit" ;;
        esac
        ;;
    secret)
        case $sub in
        list) options="--limit" ;;
        set | remove) options="" ;;
        *) options="list set remove --limit" ;;
        esac
        ;;
    fleet)
        case $sub in
        check | diff | apply)
            options=""
            [[ $sub != apply ]] || options="--yes --wait"
            COMPREPLY=()
            [[ $cur == -* ]] || _filedir
            COMPREPLY+=($(compgen -W "$options $global" -- "$cur"))
            return
            ;;
        rollback) options="--yes --wait" ;;
        export) options="--revision" ;;
        status) options="--limit --fail" ;;
        log) options="--all --limit" ;;
        schema) options="" ;;
        *) options="check diff apply rollback export status log schema" ;;
        esac
        ;;
    changes) options="--agent --group --test --outcome --revision --open --from --to --limit" ;;
    version) options="" ;;
    esac
    COMPREPLY=($(compgen -W "$options $global" -- "$cur"))
} &&
    complete -F _vindralctl vindralctl
