# bash completion for widmo-analyze: its options, the values of those that
# take a choice, folders for --output and audio files for the rest.
# The option list is that of `widmo-analyze --help`; tests/package/cli.sh
# fails when the two differ.

# Audio files libsndfile reads, by extension (upper case is added by _filedir).
_widmo_analyze_audio='wav|wave|flac|ogg|oga|opus|mp3|aif|aiff|aifc|au|snd|caf|w64|rf64'

_widmo_analyze() {
    local cur prev words cword split
    _init_completion -s || return

    case $prev in
        --bands)
            mapfile -t COMPREPLY < <(compgen -W '1 3 6 12' -- "$cur")
            return ;;
        --fft-size)
            mapfile -t COMPREPLY < <(compgen -W '256 512 1024 2048 4096 8192 16384 32768 65536' -- "$cur")
            return ;;
        --window)
            mapfile -t COMPREPLY < <(compgen -W 'rectangle blackman hamming hann' -- "$cur")
            return ;;
        --interval)
            mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4' -- "$cur")
            return ;;
        --rows)
            mapfile -t COMPREPLY < <(compgen -W '512 1024 2048 4096' -- "$cur")
            return ;;
        --colors)
            mapfile -t COMPREPLY < <(compgen -W '0 1 2' -- "$cur")
            return ;;
        --pool)
            mapfile -t COMPREPLY < <(compgen -W 'max mean' -- "$cur")
            return ;;
        --weighting)
            mapfile -t COMPREPLY < <(compgen -W 'A C Z' -- "$cur")
            return ;;
        --calibration)
            _filedir
            return ;;
        -o | --output)
            _filedir -d
            return ;;
        --min-db | --channel | --jobs | --levels | --spl-offset | --width | --tile | --ltsa | --name)
            # A number of the user's choosing: nothing to offer.
            return ;;
    esac
    $split && return

    # After "--" every argument is a file.
    local i
    for ((i = 1; i < cword; i++)); do
        if [[ ${words[i]} == -- ]]; then
            _filedir "$_widmo_analyze_audio"
            return
        fi
    done

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--spectrogram --width --pool --tile --ltsa --spectrum --bands --summary
            --levels --weighting --calibration --spl-offset --fft-size --window --interval --rows --min-db --colors --log --channel
            -o --output --jobs --name --skip-existing --no-progress -h --help -V --version' -- "$cur")
        return
    fi
    _filedir "$_widmo_analyze_audio"
} &&
    complete -F _widmo_analyze widmo-analyze
