# bash completion for vtldctl: its commands, their subcommands and options,
# the global options before and after the command, and files and directories
# where a command takes a path on this machine.

_vtldctl() {
  local cur prev
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()

  local global_options="--root --socket --timeout --json --help --version"
  local commands="migrate-preferences prepare-log-container prepare-work-container
    remove-work-container shrink-data-partition expand-data-partition restore-attributes
    restore-container-attributes move-staging-to-final create-device-manifest
    create-hard-link send sim disk manifest signed-manifest demo help"

  # What an option before the word needs.
  case $prev in
    --root)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      return 0
      ;;
    --socket | --payload | --key | --chain | --helper)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return 0
      ;;
    --backup)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      return 0
      ;;
    --timeout | --version | --app-data | --group-data | --extension-data)
      # A number, or ID=DIR: nothing to offer. (--version takes a number only
      # after signed-manifest create; elsewhere it ends the command line.)
      return 0
      ;;
  esac

  # The command and, for the tools, the subcommand: the first words that are
  # not options or option values.
  local i word command="" subcommand=""
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    case $word in
      --root | --socket | --timeout | --payload | --key | --chain | --helper | --backup | \
        --app-data | --group-data | --extension-data)
        ((i++))
        continue
        ;;
      -*) continue ;;
    esac
    if [[ -z $command ]]; then
      command=$word
    elif [[ -z $subcommand ]]; then
      subcommand=$word
      break
    fi
  done

  local options="" words=""
  case $command in
    "")
      if [[ $cur == -* ]]; then
        words=$global_options
      else
        words=$commands
      fi
      ;;
    help)
      [[ -z $subcommand ]] && words=$commands
      ;;
    sim)
      [[ -z $subcommand ]] && words="create"
      ;;
    disk)
      [[ -z $subcommand ]] && words="show"
      ;;
    manifest)
      if [[ -z $subcommand ]]; then
        words="show diff"
      elif [[ $subcommand == show ]]; then
        options="--json"
      fi
      ;;
    signed-manifest)
      if [[ -z $subcommand ]]; then
        words="create show verify"
      elif [[ $subcommand == create ]]; then
        options="--payload --backup --app-data --group-data --extension-data --version --key
          --chain --xml"
      fi
      ;;
    create-device-manifest)
      options="--inclusive"
      ;;
    demo)
      options="--helper"
      ;;
  esac

  if [[ -n $words ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
    return 0
  fi
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options --root --socket --timeout --json --help" -- "$cur")
    return 0
  fi
  # Paths: device paths for the helper's commands are not on this machine,
  # but the tools' files are, and so is a simulated device's tree.
  mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  return 0
}

complete -o filenames -F _vtldctl vtldctl
