# Completion of the command zenbrak3 for bash. Commands and options are the program's own word;
# instances, pools, jobs, backups and definitions are asked of the agent.

_zenbrak3_add() { # what is offered, one a line
    local name
    while IFS= read -r name; do
        [[ $name == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
    done
}

_zenbrak3_names() { # instances, pools, jobs, backups or definitions
    _zenbrak3_add < <("${program[@]}" complete "$1" 2>/dev/null)
}

# The second words of a group, or with no argument all first ones.
_zenbrak3_commands() { # [group]
    _zenbrak3_add < <("$COMP_PROGRAM" complete commands 2>/dev/null |
        if [[ $1 ]]; then sed -n "s/^$1 //p"; else cut -d ' ' -f 1 | sort -u; fi)
}

_zenbrak3_options() {
    _zenbrak3_add < <("$COMP_PROGRAM" "${command[@]}" --help 2>/dev/null |
        grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+')
}

# What may stand where a word of this command is being typed; $count words stand before it.
_zenbrak3_word() {
    case "${command[*]}" in
        "") _zenbrak3_commands ;;
        pool | platform | member | job | instance | definition | schedule)
            _zenbrak3_commands "${command[0]}" ;;
        backup)
            _zenbrak3_commands backup
            _zenbrak3_names instances ;;
        flavours | instances | pools | members | jobs | definitions | info | audit) ;;
        "pool create" | "member add" | "platform list" | "platform add") ;;
        "member remove") _zenbrak3_names members ;;
        "pool remove" | "pool update") _zenbrak3_names pools ;;
        "job "*) _zenbrak3_names jobs ;;
        "backup show" | "backup remove" | restore) _zenbrak3_names backups ;;
        "definition save" | run) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        "definition "*) _zenbrak3_names definitions ;;
        "schedule add" | "schedule list") ((count == 0)) && _zenbrak3_names instances ;;
        "schedule "*) ((count == 0)) && _zenbrak3_names schedules ;;
        *) ((count == 0)) && _zenbrak3_names instances ;;
    esac
}

_zenbrak3() {
    local COMP_PROGRAM=${COMP_WORDS[0]} cur=${COMP_WORDS[COMP_CWORD]} word previous=
    local -a command=() program=("$COMP_PROGRAM")
    local -i count=0 index
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; ++index)); do
        word=${COMP_WORDS[index]}
        if [[ $previous == --socket ]]; then
            program+=(--socket "$word")
        elif [[ $word != -* && ! $previous =~ ^(-o|--(option|pool|cache-dir|level|compression|channels|rate|name|url|uid|user|host|platform|xbsa-host|xbsa-port|interval|timeout|progress|instance|definition|state|limit|subject|days|columns|sort|filter|type|watch|full|log|time-zone|schema))$ &&
            ! "${command[*]}:$previous" =~ ^schedule\ (add|update):--(incremental|cumulative)$ ]]; then
            case "${command[*]}:$word" in
                :*) command=("$word") ;;
                pool:* | platform:* | member:* | job:* | instance:* | definition:* | schedule:* | backup:show | backup:remove) command+=("$word") ;;
                *) count+=1 ;;
            esac
        fi
        previous=$word
    done
    case "$previous" in
        --pool) _zenbrak3_names pools ;;
        --instance) _zenbrak3_names instances ;;
        --definition) _zenbrak3_names definitions ;;
        --level | --type) _zenbrak3_add <<<$'full\nincremental\ncumulative\nlog' ;;
        --compression) _zenbrak3_add <<<$'zstd\nlzop\nauto\nnone' ;;
        --cache-dir) mapfile -t COMPREPLY < <(compgen -d -- "$cur") ;;
        --socket) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
        *) if [[ $cur == -* ]]; then _zenbrak3_options; else _zenbrak3_word; fi ;;
    esac
}

complete -F _zenbrak3 zenbrak3
