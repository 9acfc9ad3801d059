# Completion of quillctl for bash. Made out of the table of its commands.
_quillctl() {
  local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]-} options='--help --version --json'
  local roles='qntty hubd leafd admd relay arcd arc_tty lib_call nw_lib_call nil'
  ((COMP_CWORD < 3)) || command+=" ${COMP_WORDS[2]}"
  case $command in
    'store verify'*) options='--help --json' ;;
    'store diff'*) options='--help --json --values' ;;
    'store export'*) options='--help --json' ;;
    'store import'*) options='--help' ;;
    'log explain'*) options='--help --table --json' ;;
    'log set'*) options='--help --socket --source --timeout' ;;
    'log get'*) options='--help --socket --source --timeout --json' ;;
    'log reset'*) options='--help --socket --source --timeout' ;;
    'conf check'*) options='--help --json' ;;
    'status'*) options='--help --json' ;;
    'store'*) options='--help --json --values --key --raw' ;;
    'call'*) options='--help --socket --type --source --text --hex --file --stdin --timeout --json' ;;
    'log'*) options='--help --since --tail --follow --for --level --module --logid --biz --grep --json' ;;
    'pid'*) options='--help --json' ;;
    'doctor'*) options='--help --json' ;;
  esac
  COMPREPLY=()
  if [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  elif ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W ' status store call log pid doctor conf' -- "$word")
  elif ((COMP_CWORD == 2)); then
    case ${COMP_WORDS[1]} in
      store) mapfile -t COMPREPLY < <(compgen -W " verify diff export import" -- "$word") ;;
      log) mapfile -t COMPREPLY < <(compgen -W " explain set get reset $roles" -- "$word") ;;
      conf) mapfile -t COMPREPLY < <(compgen -W " check" -- "$word") ;;
    esac
  elif [[ ${COMP_WORDS[1]} == log ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$roles" -- "$word")
  fi
}
complete -o default -F _quillctl quillctl
