# Completes the command line of korlo-settings in fish: `korlo-settings complete` knows what may stand there, fish takes
# the line apart and quotes. Names that hold a line break or a TAB are left out, because fish reads a candidate a line,
# and a description behind a TAB.

function __korlo_settings_complete
    set -l words (commandline -opc)
    set -l word (commandline -ct | string unescape)
    set -l answer ($words[1] complete --null -- $words[2..] "$word" 2>/dev/null | string split0)
    if test "$answer[1]" = files
        set -l option (string match -r '^--[^=]*=' -- "$word")
        __fish_complete_path (string replace -- "$option" '' "$word") | while read -l path
            printf '%s\n' "$option$path"
        end
    else
        for name in $answer[2..]
            string match -qr '[\n\t]' -- $name; or printf '%s\n' $name
        end
    end
end

complete -c korlo-settings -f -a '(__korlo_settings_complete)'
