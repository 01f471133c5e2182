# Completion of the tool's commands, options and values for bash. Everything comes from the tool's own --help.

_usbdisplay() {
    local tool=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command= help type= words=
    COMPREPLY=()
    if [ "$COMP_CWORD" -gt 1 ]; then
        command=${COMP_WORDS[1]}
    fi
    help=$("$tool" $command --help 2>/dev/null) || return

    # The type of an option's value follows the option in the help. Flags have none.
    if [[ $previous == --* ]]; then
        type=$(sed -n "s/^  $previous \([^ ][^ ]*\).*/\1/p" <<<"$help")
    fi
    case $previous:$type:$word in
    --pattern:*)
        words=$(sed -n '/^  --pattern /,/^  --/ s/^ \{32\}\([a-z-]*\) .*/\1/p' <<<"$help")
        ;;
    *:F*:*)
        [[ $type == *'|none' ]] && words=none
        COMPREPLY=($(compgen -f -- "$word"))
        ;;
    *:*'|'*:*)
        words=${type//|/ }
        ;;
    *:?*:*) ;; # a number, a size or a name: there is nothing to offer
    *::-*)
        words=$(sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]*\).*/\2/p' <<<"$help")
        ;;
    *)
        if [ "$COMP_CWORD" -eq 1 ]; then
            words=$(sed -n '/^Subcommands:/,$ s/^  \([a-z-]*\) .*/\1/p' <<<"$help")
        elif [[ $help == *Positionals:* ]]; then
            COMPREPLY=($(compgen -f -- "$word"))
        fi
        ;;
    esac
    COMPREPLY+=($(compgen -W "$words" -- "$word"))
}

complete -o filenames -F _usbdisplay usbdisplay
