# Completion of peltexctl for bash.

# What completes behind an option, or in a place, of a subcommand.
_peltexctl_type() {
    case $1:$2 in
        *:--library) echo FILE ;;
        *:--data | backup:--take) echo DIR ;;
        *:--log) echo words debug info warn error silent ;;
        *:--uid | *:--seinfo | *:--slice-size) echo WORD ;;
        :0) echo words shell backup restore move brief list verify export ;;
        backup:0) echo words file dir tar split byfile ;;
        restore:0) echo words file dir tar split ;;
        brief:0) echo words dir byfile ;;
        backup:[12] | restore:[12] | brief:[12] | move:[01]) echo PATH ;;
        list:0 | verify:0 | export:[01]) echo FILE ;;
    esac
}

_peltexctl_options() {
    local task="--uid --seinfo --no-verify --force"
    case $1 in
        backup) echo "$task --slice-size --take --replace --sums" ;;
        restore) echo "$task --consume" ;;
        move | brief) echo "$task" ;;
    esac
    echo -h --help --version --library --data --log --json -q --quiet
}

# Files under /data are those of the directory that --data names.
_peltexctl_paths() {
    local name
    if [[ -z $1 || $2 != /data/* ]]; then
        _peltexctl_files "$2" -f
        return
    fi
    compopt -o filenames -o nospace 2>/dev/null
    while IFS= read -r name; do
        [[ -d $name ]] && name+=/
        COMPREPLY+=("/data${name#"$1"}")
    done < <(compgen -f -- "$1${2#/data}")
}

_peltexctl_files() {
    local name
    compopt -o filenames 2>/dev/null
    while IFS= read -r name; do
        COMPREPLY+=("$name")
    done < <(compgen "$2" -- "$1")
}

_peltexctl() {
    local current=${COMP_WORDS[COMP_CWORD]} command= data= option= count=0 i word value
    COMPREPLY=()
    [[ $current == = ]] && current=
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == -* ]]; then
            [[ -n $(_peltexctl_type "$command" "$word") ]] || continue
            # --option=value comes as three words.
            [[ ${COMP_WORDS[i + 1]} == = ]] && ((i++))
            ((i++))
            value=${COMP_WORDS[i]}
            ((i < COMP_CWORD)) || option=$word
            [[ $word == --data ]] && data=${value/#\~/$HOME} data=${data%/}
        elif [[ -z $command ]]; then
            command=$word
        else
            ((count++))
        fi
    done
    set -- $(_peltexctl_type "$command" "${option:-$count}")
    if [[ -z $option && $current == -* ]]; then
        set -- words $(_peltexctl_options "$command")
    fi
    case $1 in
        words) COMPREPLY=($(compgen -W "${*:2}" -- "$current")) ;;
        FILE | PATH) _peltexctl_paths "$data" "$current" ;;
        DIR) _peltexctl_files "$current" -d ;;
    esac
}

complete -F _peltexctl peltexctl
