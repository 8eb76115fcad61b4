# bash completion for privinspect(1): subcommands, options, option values
# and image file names. Installed as
# /usr/share/bash-completion/completions/privinspect.
#
# tests/command_line_test.sh checks these lists against privinspect --help.

_privinspect() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local subcommands="logs config headers check scan hexdump records dump locate extract compare map repair anonymise"
  local global_options="--sector-size --header --json --region --offset --help --version"
  local record_types="volume vol plex subdisk sd disk dm diskgroup dg da rvol
    replica rlink dco snapshot snap stpool info cache vset"

  # The subcommand: the first word before the cursor that names one.
  local sub="" i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      logs | config | headers | check | scan | hexdump | records | dump | locate | extract | compare | map | repair | anonymise)
        sub=${COMP_WORDS[i]}
        break
        ;;
    esac
  done

  case $prev in
    --sector-size)
      mapfile -t COMPREPLY < <(compgen -W "512 4096" -- "$cur")
      return
      ;;
    --header)
      mapfile -t COMPREPLY < <(compgen -W "auto primary alternate" -- "$cur")
      return
      ;;
    --type)
      [[ $sub == records ]] && mapfile -t COMPREPLY < <(compgen -W "$record_types" -- "$cur")
      return
      ;;
    --copy | --count | --sector | --block | --record | --rid | --name | --range | --region | --offset)
      return  # a number, a COPY:N or SECTOR:COUNT, a record name or id: nothing to offer
      ;;
  esac

  if [[ -z $sub ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$subcommands $global_options" -- "$cur")
    return
  fi

  local options="--help --sector-size --header --region --offset"
  case $sub in
    logs) options+=" --copy --long" ;;
    config) options+=" --copy" ;;
    check) options+=" --quiet" ;;
    scan) options+=" --range" ;;
    hexdump) options+=" --sector --block --record --count --copy" ;;
    records) options+=" --type --rid --name --copy" ;;
    extract) options+=" --force" ;;
    compare | map) options+=" --svg" ;;
    repair) options+=" --dry-run --force" ;;
    anonymise) options+=" --key --new-key --map --force --with --ids --show" ;;
  esac
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
  else
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}
complete -F _privinspect privinspect
