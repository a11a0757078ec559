# Completes vdctl's words in bash. vdctl itself knows what fits; where it knows nothing, a file is completed.
_vdctl()
{
    local IFS=$'\n'
    COMPREPLY=($("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)) # names without blanks and patterns
}
complete -o default -F _vdctl vdctl
