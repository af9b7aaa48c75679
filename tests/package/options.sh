# Shared by the package tests: the option names a help text, a man page or a
# completion script lists, one per line, sorted.
#   help_options < help.txt      option lines of --help ("  -o, --output DIR   ...")
#   man_options  < page.1        the tags of the .TP paragraphs under .SH OPTIONS
#                                (\fB\-o\fR, .BI \-\-rows " R")
#   completion_options < file    the word list offered for "-"

help_options() {
    grep -oE '^  -[-A-Za-z0-9]+(, --[-A-Za-z0-9]+)?' | tr -d ' ' | tr ',' '\n' | sort -u
}

man_options() {
    awk '/^\.SH/ { opts = ($2 == "OPTIONS") } tag { print; tag = 0 } opts && /^\.TP/ { tag = 1 }' |
        grep -oE '\\-(\\-)?[A-Za-z][A-Za-z0-9]*(\\-[A-Za-z0-9]+)*' | tr -d '\\' | sort -u
}

completion_options() {
    sed -n "/compgen -W '--/,/' -- /p" | sed "s/.*compgen -W '//; s/' -- .*//" |
        grep -oE -- '(^|[[:space:]])-[-A-Za-z0-9]+' | tr -d ' \t' | sort -u
}
