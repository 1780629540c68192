# Completes the options that a program's own guide tells, and file names.

_lumo_options() {
    "$1" --help 2>&1 | grep -oE -- '(^|[[:space:]|,])--?[[:alnum:]?][[:alnum:]-]*' | tr -d ' \t|,'
}

_lumo_program() {
    COMPREPLY=()
    [[ $2 == -* ]] || return 0
    mapfile -t COMPREPLY < <(compgen -W "$(_lumo_options "$1")" -- "$2")
}

complete -o default -F _lumo_program lumo lumo-ring lumo-conf lumo-feed lumo-web lumo-top
