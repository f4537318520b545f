# Completion of ptzctl for bash.

_ptzctl() {
    local current=${COMP_WORDS[COMP_CWORD]} word words=() at
    local options='--wait --wait= --no-stop --json --help --version -t -s --'
    local days='sunday monday tuesday wednesday thursday friday saturday'
    local onvif='get_position is_moving move_left move_right move_up move_down move_in move_out move_x move_y move_both
        continuous_move move_stop move_preset goto_home_position set_preset set_home_position remove_preset jump_to_abs
        jump_to_abs_speed jump_to_rel jump_to_rel_speed get_presets start_tracking preset_tour_start preset_tour_stop
        preset_tour_pause'
    # The words of the command before this one, without options and their values.
    for ((at = 1; at < COMP_CWORD; ++at)); do
        word=${COMP_WORDS[at]}
        case $word in
        -s | -t) at=$((at + 1)) ;;
        -[!0-9]*) ;;
        *) words+=("$word") ;;
        esac
    done
    [ "${COMP_WORDS[COMP_CWORD - 1]}" != -s ] || { mapfile -t COMPREPLY < <(compgen -f -- "$current"); return; }
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        return
    fi
    local choices=''
    case "${words[*]}" in
    '') choices='status move goto step stop home calibrate speed preset tour plan panorama track mask flip watch onvif' ;;
    step) choices='left right up down' ;;
    preset) choices='list go set delete' ;;
    'preset go') choices='1 2 3 4 5 6 7 8' ;;
    'preset set') choices='new 1 2 3 4 5 6 7 8' ;;
    'preset delete') choices='all 1 2 3 4 5 6 7 8' ;;
    tour) choices='on off show' ;;
    'tour on') choices='scan presets' ;;
    plan) choices='show set clear' ;;
    'plan set') mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    'plan clear'*) choices=$days ;;
    panorama) choices='start stop' ;;
    track | mask) choices='on off' ;;
    flip) choices='off left_and_right up_and_down center' ;;
    onvif) choices=$onvif ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
}
complete -F _ptzctl ptzctl
