# bash completion for mirel                                -*- shell-script -*-

_mirel()
{
    local cur prev words cword
    _init_completion || return

    local commands="add list show demo path mcp-config signin sync watch status workspace adopt signout help"
    if ((cword == 1)); then
        COMPREPLY=($(compgen -W "$commands --help" -- "$cur"))
        return
    fi

    case $prev in
        --status)
            COMPREPLY=($(compgen -W "open in_progress resolved archived all" -- "$cur"))
            return ;;
        --priority)
            COMPREPLY=($(compgen -W "low normal high" -- "$cur"))
            return ;;
        --mode)
            COMPREPLY=($(compgen -W "region fullscreen window" -- "$cur"))
            return ;;
        --client)
            COMPREPLY=($(compgen -W "claude-desktop claude-code vscode cursor generic" -- "$cur"))
            return ;;
        --note-file | --annotate)
            _filedir
            return ;;
        --note | --app | --bundle-id | --window | --url | --display | --scale | --group | --tag | \
            --search | --limit | --into)
            return ;;
    esac

    local options="--help"
    case ${words[1]} in
        add)
            options+=" --note --note-file --app --bundle-id --window --url --display --scale --mode"
            options+=" --group --tag --priority --annotate" ;;
        list) options+=" --status --group --tag --search --limit" ;;
        mcp-config) options+=" --client --install" ;;
        adopt) options+=" --into" ;;
    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    elif [[ ${words[1]} == add ]]; then
        _filedir '@(png|PNG|jpg|JPG|jpeg|JPEG|webp|WEBP)'
    fi
} &&
    complete -F _mirel mirel

# ex: filetype=sh
