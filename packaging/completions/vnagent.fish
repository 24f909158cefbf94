# Completion of vnagent's command line for fish.

set -l commands run check import-neutron schema

complete -c vnagent -n "not __fish_seen_subcommand_from $commands" -f
complete -c vnagent -n "not __fish_seen_subcommand_from $commands" -a run -d "Load a cloud, apply events, print what the switch must provide"
complete -c vnagent -n "not __fish_seen_subcommand_from $commands" -a check -d "Say all that is wrong with a cloud document and events"
complete -c vnagent -n "not __fish_seen_subcommand_from $commands" -a import-neutron -d "Turn the state of a Neutron server into a cloud document"
complete -c vnagent -n "not __fish_seen_subcommand_from $commands" -a schema -d "Print the JSON Schema of a document"
complete -c vnagent -n "not __fish_seen_subcommand_from $commands" -l version -d "Print the version"
complete -c vnagent -s h -l help -d "Say what the command does"

complete -c vnagent -n "__fish_seen_subcommand_from run" -l events -r -d "Events to apply, one a line"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l region-sync-timeout -x -d "Region sync timeout to start with"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l toggle -x -a "on off" -d "Publish switch ports or network elements"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l format -x -a "tree json" -d "Form of the final document"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l inspect -x -d "Print the part of the machines at this path"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l each -d "Print one line for each event"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l changes -d "With --each, print what has changed"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l keep-going -d "Skip a refused event and go on"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l trace -x -a "(seq 0 9)" -d "Print trace lines up to this level"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l trace-file -r -d "Where trace lines go"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l trace-text -d "Trace lines as plain text"
complete -c vnagent -n "__fish_seen_subcommand_from run" -l max-input -x -d "Read no larger file or line of events"

complete -c vnagent -n "__fish_seen_subcommand_from check" -l events -r -d "Events to check, one a line"
complete -c vnagent -n "__fish_seen_subcommand_from check" -l max-input -x -d "Read no larger file or line of events"

complete -c vnagent -n "__fish_seen_subcommand_from import-neutron" -l region -x -d "Name of the region in the cloud document"
complete -c vnagent -n "__fish_seen_subcommand_from import-neutron" -l max-input -x -d "Read no larger file"
complete -c vnagent -n "__fish_seen_subcommand_from import-neutron" -a "(__fish_complete_directories)"

complete -c vnagent -n "__fish_seen_subcommand_from schema" -f -a "cloud output"
