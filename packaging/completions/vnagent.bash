# Completion of vnagent's command line for bash.

_vnagent() {
  local word=$2 previous=$3 command= i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      run | check | import-neutron | schema) command=${COMP_WORDS[i]} && break ;;
    esac
  done

  case $previous in
    --events | --trace-file) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
    --toggle) mapfile -t COMPREPLY < <(compgen -W 'on off' -- "$word") && return ;;
    --format) mapfile -t COMPREPLY < <(compgen -W 'tree json' -- "$word") && return ;;
    --trace) mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4 5 6 7 8 9' -- "$word") && return ;;
    --region | --region-sync-timeout | --inspect | --max-input) return ;;
  esac

  local words
  case $command in
    run) words='--help --events --region-sync-timeout --toggle --format --inspect --each --changes --keep-going --trace --trace-file --trace-text --max-input' ;;
    check) words='--help --events --max-input' ;;
    import-neutron) words='--help --region --max-input' ;;
    schema) words='--help' ;;
    *) words='run check import-neutron schema --help --version' ;;
  esac
  if [[ -z $command || $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  elif [[ $command == schema ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'cloud output' -- "$word")
  elif [[ $command == import-neutron ]]; then
    compopt -o filenames && mapfile -t COMPREPLY < <(compgen -d -- "$word")
  else
    compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}

complete -F _vnagent vnagent
