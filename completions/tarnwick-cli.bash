# bash completion for tarnwick-cli. The commands, options and values here follow the manual page
# (man/tarnwick-cli.1); change both together.

_tarnwick_cli()
{
    local cur prev words cword
    _init_completion -s || return

    local commands="index update watch search prompt files stats remove compact embed train mcp"
    local modes="hybrid semantic keyword text regex"
    local scopes="pinned top5 all"

    case $prev in
        --mode)
            COMPREPLY=($(compgen -W "$modes" -- "$cur"))
            return
            ;;
        --scope)
            COMPREPLY=($(compgen -W "$scopes" -- "$cur"))
            return
            ;;
        --folder)
            _filedir -d
            return
            ;;
        --weights)
            COMPREPLY=($(compgen -W "none" -- "$cur"))
            _filedir tten
            return
            ;;
        --chunk-size | --overlap | -k | --steps | --batch | --lr | --threads | --heads | --layers | \
            --exclude | --extensions | --max-file-size | --type | --in | --modified)
            return
            ;;
    esac

    # The command is the first word that is not an option.
    local i command="" operands=0
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --mode | --scope | --weights | --chunk-size | --overlap | -k | --steps | --batch | \
                --lr | --threads | --heads | --layers | --exclude | --extensions | --max-file-size | \
                --type | --in | --modified)
                ((i++))
                ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=${words[i]}
                else
                    ((operands++))
                fi
                ;;
        esac
    done

    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "-h --help --version" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi

    local options=""
    case $command in
        index) options="--chunk-size --overlap --weights --exclude --extensions --max-file-size --nice --verbose" ;;
        update | watch) options="--chunk-size --overlap --weights --json --exclude --extensions --max-file-size --nice --verbose" ;;
        search) options="--mode -k --all-chunks --weights --type --in --modified --json --vimgrep --verbose" ;;
        prompt) options="--scope --mode -k --weights --type --in --modified --verbose" ;;
        files) options="--json --exclude --extensions --max-file-size --verbose" ;;
        stats) options="--json --verbose" ;;
        remove | compact) options="--verbose" ;;
        embed) options="--weights --verbose" ;;
        mcp) options="--folder --weights --verbose" ;;
        train) options="--json --steps --batch --lr --threads --heads --layers --bpe --verbose" ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options -h --help" -- "$cur"))
        return
    fi

    case $command in
        train)
            if ((operands == 0)); then
                COMPREPLY=($(compgen -W "profiles add default" -- "$cur"))
            else
                _filedir -d
            fi
            ;;
        index | update | watch | files | stats | compact)
            ((operands == 0)) && _filedir -d
            ;;
        search | prompt)
            ((operands == 0)) && _filedir -d
            ;;
        remove)
            if ((operands == 0)); then
                _filedir -d
            else
                _filedir
            fi
            ;;
    esac
} &&
    complete -F _tarnwick_cli tarnwick-cli
