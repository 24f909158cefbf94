# Completion of vnagent's command line for bash.

_vnagent() {
  local word=$2 previous=$3 command= i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      run | check | import-neutron | schema | show | get | patch | replace | diff | apply | watch | wait | export | lock | trace | load | serve | journal) command=${COMP_WORDS[i]} && break ;;
    esac
  done

  case $previous in
    --events | --trace-file | --socket | --token-file | --ca | --config | --tls-cert | --tls-key | --client-ca | --tokens | --state-dir | --cloud) compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
    --toggle) mapfile -t COMPREPLY < <(compgen -W 'on off' -- "$word") && return ;;
    --socket-role) mapfile -t COMPREPLY < <(compgen -W 'read write admin' -- "$word") && return ;;
    --format) mapfile -t COMPREPLY < <(compgen -W 'tree json' -- "$word") && return ;;
    --trace | --level) mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4 5 6 7 8 9' -- "$word") && return ;;
    --of) mapfile -t COMPREPLY < <(compgen -W 'output cloud' -- "$word") && return ;;
    --region | --region-sync-timeout | --inspect | --max-input) return ;;
    --listen | --keep-seconds | --keep-revisions | --max-body | --max-bodies | --max-connections) return ;;
    --until | --url | --deadline | --at | --if-match | --request-id | --key | --since | --count | --timeout | --requester | --wait) return ;;
    --ports | --regions | --hosts | --prefix | --seed | --drivers | --connections | --rate | --sync-interval | --watchers | --readers | --read-rate | --seconds) return ;;
    --watch) mapfile -t COMPREPLY < <(compgen -W 'hosts output cloud' -- "$word") && return ;;
  esac

  local words
  case $command in
    run) words='--help --events --region-sync-timeout --toggle --format --inspect --each --changes --keep-going --trace --trace-file --trace-text --max-input --journal --until' ;;
    check) words='--help --events --max-input' ;;
    import-neutron) words='--help --region --max-input' ;;
    schema) words='--help' ;;
    show) words='--help --socket --url --token-file --ca --deadline --json' ;;
    get) words='--help --keys --socket --url --token-file --ca --deadline --json' ;;
    patch) words='--help --at --if-match --request-id --key --dry-run --socket --url --token-file --ca --deadline --json' ;;
    replace) words='--help --request-id --dry-run --socket --url --token-file --ca --deadline --json' ;;
    diff) words='--help --socket --url --token-file --ca --deadline --json' ;;
    apply) words='--help --request-id --dry-run --socket --url --token-file --ca --deadline --json' ;;
    watch) words='--help --of --at --since --count --socket --url --token-file --ca --deadline --json' ;;
    wait) words='--help --timeout --socket --url --token-file --ca --deadline --json' ;;
    export) words='--help --map --outputs --repair --add-only --report --once --control --metrics --status --socket --url --token-file --ca --deadline --json' ;;
    lock) words='--help --requester --request-id --wait --sync --force --socket --url --token-file --ca --deadline --json' ;;
    trace) words='--help --level --tail --socket --url --token-file --ca --deadline --json' ;;
    load) words='--help --ports --regions --hosts --prefix --seed --drivers --connections --rate --sync-interval --watchers --watch --readers --read-rate --seconds --overwrite --keep --socket --url --token-file --ca --deadline --json' ;;
    serve) words='--help --config --socket --socket-role --listen --tls-cert --tls-key --client-ca --tokens --state-dir --keep-seconds --keep-revisions --require-lock --max-body --max-bodies --max-connections --region-sync-timeout --toggle --cloud' ;;
    journal) words='--help' ;;
    *) words='run check import-neutron schema serve show get patch replace diff apply watch wait export lock trace load journal --help --version' ;;
  esac
  if [[ -z $command || $command == serve || $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  elif [[ $command == schema ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'cloud output' -- "$word")
  elif [[ $command == journal && $previous == journal ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'check show compact repair' -- "$word")
  elif [[ $command == show ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'regions hosts ports switchports vlans locks pools' -- "$word")
  elif [[ $command == get ]]; then
    compopt -o nospace && mapfile -t COMPREPLY < <(vnagent complete places "$word" 2>/dev/null | grep -F -- "$word")
  elif [[ $command == lock || $command == replace && $previous == replace ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(vnagent complete regions 2>/dev/null)" -- "$word")
  elif [[ $command == import-neutron ]]; then
    compopt -o filenames && mapfile -t COMPREPLY < <(compgen -d -- "$word")
  else
    compopt -o filenames && mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}

complete -F _vnagent vnagent
